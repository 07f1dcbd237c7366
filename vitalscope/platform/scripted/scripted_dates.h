// A time zone of the test's choice.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "vitalscope/platform/dates.h"

namespace qbv {

// UTC at first. Any thread.
class ScriptedDates final : public Dates {
 public:
  CalendarTime localTime(AbsoluteTime time) override;
  AbsoluteTime startOfDay(AbsoluteTime time) override;

  // One offset for all times; forgets clock changes.
  void setZone(long utcOffsetSeconds, const std::string& abbreviation);
  // From this moment on (until the next change) another offset holds.
  void addClockChange(AbsoluteTime from, long utcOffsetSeconds, const std::string& abbreviation);

  // The moment at which a clock in UTC shows this. For writing tests.
  static AbsoluteTime utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

 private:
  struct Zone {
    long offset = 0;
    std::string abbreviation = "UTC";
  };
  Zone zoneAt(AbsoluteTime time) const;
  std::int64_t localDay(AbsoluteTime time) const;  // days since 1 January 1970

  mutable std::mutex mutex_;
  Zone first_;
  std::map<AbsoluteTime, Zone> changes_;
};

}  // namespace qbv
