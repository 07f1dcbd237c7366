// The Gregorian calendar without any time zone.
#pragma once

#include <chrono>
#include <cstdint>

#include "vitalscope/platform/dates.h"

namespace qbv {

// Days from 1 January 1970 to the day that the calendar shows. Any thread.
inline std::int64_t daysSince1970(const CalendarTime& time) noexcept {
  const std::chrono::year_month_day date(std::chrono::year(time.year),
                                         std::chrono::month(static_cast<unsigned>(time.month)),
                                         std::chrono::day(static_cast<unsigned>(time.day)));
  return std::chrono::sys_days(date).time_since_epoch().count();
}

// What a calendar without zone shows so many seconds after 1 January 1970, 00:00. Offset and zone stay empty.
// Any thread.
inline CalendarTime civilTime(std::int64_t seconds) {
  const auto moment = std::chrono::sys_seconds(std::chrono::seconds(seconds));
  const auto day = std::chrono::floor<std::chrono::days>(moment);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(moment - day);
  CalendarTime time;
  time.year = static_cast<int>(date.year());
  time.month = static_cast<int>(static_cast<unsigned>(date.month()));
  time.day = static_cast<int>(static_cast<unsigned>(date.day()));
  time.hour = static_cast<int>(clock.hours().count());
  time.minute = static_cast<int>(clock.minutes().count());
  time.second = static_cast<int>(clock.seconds().count());
  return time;
}

}  // namespace qbv
