#include "vitalscope/platform/scripted/scripted_dates.h"

#include <cmath>
#include <limits>

#include "vitalscope/platform/portable/civil.h"

namespace qbv {

namespace {

constexpr std::int64_t kSecondsOfDay = 86400;

std::int64_t secondsSince1970(AbsoluteTime time) {
  if (!std::isfinite(time)) return 0;
  return static_cast<std::int64_t>(std::floor(time + kCFAbsoluteTimeIntervalSince1970));
}

AbsoluteTime absoluteTime(std::int64_t secondsSince1970) {
  return static_cast<double>(secondsSince1970) - kCFAbsoluteTimeIntervalSince1970;
}

}  // namespace

CalendarTime ScriptedDates::localTime(AbsoluteTime time) {
  const Zone zone = zoneAt(time);
  CalendarTime local = civilTime(secondsSince1970(time) + zone.offset);
  local.utcOffsetSeconds = zone.offset;
  local.zone = zone.abbreviation;
  return local;
}

// The day begins at a midnight of some offset, or at a clock change that skips midnight.
AbsoluteTime ScriptedDates::startOfDay(AbsoluteTime time) {
  const std::int64_t day = localDay(time);
  std::map<AbsoluteTime, Zone> zones;
  {
    const std::lock_guard lock(mutex_);
    zones = changes_;
    zones[-std::numeric_limits<double>::infinity()] = first_;
  }
  AbsoluteTime first = time;
  for (const auto& [from, zone] : zones)
    for (const AbsoluteTime candidate : {absoluteTime(day * kSecondsOfDay - zone.offset), from})
      if (std::isfinite(candidate) && candidate < first && localDay(candidate) == day) first = candidate;
  return first;
}

std::int64_t ScriptedDates::localDay(AbsoluteTime time) const {
  const std::int64_t local = secondsSince1970(time) + zoneAt(time).offset;
  return local / kSecondsOfDay - (local % kSecondsOfDay < 0 ? 1 : 0);
}

ScriptedDates::Zone ScriptedDates::zoneAt(AbsoluteTime time) const {
  const std::lock_guard lock(mutex_);
  const auto next = changes_.upper_bound(time);
  return next == changes_.begin() ? first_ : std::prev(next)->second;
}

void ScriptedDates::setZone(long utcOffsetSeconds, const std::string& abbreviation) {
  const std::lock_guard lock(mutex_);
  first_ = {utcOffsetSeconds, abbreviation};
  changes_.clear();
}

void ScriptedDates::addClockChange(AbsoluteTime from, long utcOffsetSeconds,
                                   const std::string& abbreviation) {
  const std::lock_guard lock(mutex_);
  changes_[from] = {utcOffsetSeconds, abbreviation};
}

AbsoluteTime ScriptedDates::utc(int year, int month, int day, int hour, int minute, int second) {
  CalendarTime date;
  date.year = year;
  date.month = month;
  date.day = day;
  return absoluteTime(daysSince1970(date) * kSecondsOfDay + hour * 3600 + minute * 60 + second);
}

}  // namespace qbv
