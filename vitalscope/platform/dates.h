// Calendar arithmetic and date text in the local time zone.
#pragma once

#include <optional>
#include <string>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/export.h"

namespace qbv {

// A moment as the local calendar shows it (Gregorian).
struct CalendarTime {
  int year = 0;
  int month = 0;  // 1..12
  int day = 0;    // 1..31
  int hour = 0;
  int minute = 0;
  int second = 0;             // 0..60
  long utcOffsetSeconds = 0;  // east of UTC is positive
  std::string zone;           // abbreviation of the zone at that moment, "CET"
};

class QBV_EXPORT Dates {
 public:
  virtual ~Dates() = default;
  // Any thread. The moment in the system's current time zone; fractions of a second are dropped (towards the
  // past).
  virtual CalendarTime localTime(AbsoluteTime time) = 0;
  // Any thread. The first moment of the local calendar day that holds `time` (midnight, or the first moment
  // that exists where a clock change removes midnight).
  virtual AbsoluteTime startOfDay(AbsoluteTime time) = 0;
};

// Text of a moment by a pattern of calendar letters, always with the POSIX locale's digits and names.
// Letters understood: yyyy MM dd HH mm ss (n letters pad to n digits), xx (zone offset as +0100); text
// between them is copied. A pattern letter repeated more often than its value has digits pads with zeros
// ("ssss" → 0022).
class QBV_EXPORT DateFormatter {
 public:
  explicit DateFormatter(std::string pattern);
  // Any thread; reads the zone from platform().dates at each call.
  std::string stringFromDate(AbsoluteTime time) const;
  const std::string& dateFormat() const noexcept { return pattern_; }

 private:
  std::string pattern_;
};

// Whole calendar days from the local day that holds `from` to the one that holds `to`; negative when `to` is
// earlier. Counted on the calendar, so a day of 23 or 25 hours is one day. Any thread.
QBV_EXPORT long calendarDaysBetween(AbsoluteTime from, AbsoluteTime to);

}  // namespace qbv
