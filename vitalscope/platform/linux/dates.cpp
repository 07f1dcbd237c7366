#include "vitalscope/platform/dates.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <optional>
#include <tuple>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/zone_watch.h"

namespace qbv::linux_backend {

namespace {

constexpr std::time_t kHour = 3600;
constexpr std::time_t kDay = 24 * kHour;

// Seconds since 1970, fraction dropped, within what the calendar of the C library can show.
std::time_t unixTime(AbsoluteTime time) {
  constexpr double kFarthest = 6e16;
  if (std::isnan(time)) return 0;
  return static_cast<std::time_t>(
      std::floor(std::clamp(time + kCFAbsoluteTimeIntervalSince1970, -kFarthest, kFarthest)));
}

std::tm calendar(std::time_t time) {
  std::tm result{};
  localtime_r(&time, &result);
  return result;
}

auto dayOf(const std::tm& moment) {
  return std::tuple(moment.tm_year, moment.tm_mon, moment.tm_mday);
}

// Midnight of the day as some offset from UTC near that day shows it; the earliest when several do.
std::optional<std::time_t> shownMidnight(std::time_t time, const std::tm& moment) {
  const std::time_t secondsIntoDay = moment.tm_hour * kHour + moment.tm_min * 60 + moment.tm_sec;
  const std::time_t likely = time - secondsIntoDay;
  std::optional<std::time_t> earliest;
  for (const std::time_t near : {time, likely - kDay, likely - 3 * kHour, likely, likely + 3 * kHour}) {
    const std::time_t candidate = likely + moment.tm_gmtoff - calendar(near).tm_gmtoff;
    const std::tm shown = calendar(candidate);
    const bool midnight = shown.tm_hour == 0 && shown.tm_min == 0 && shown.tm_sec == 0;
    if (midnight && dayOf(shown) == dayOf(moment) && (!earliest || candidate < *earliest))
      earliest = candidate;
  }
  return earliest;
}

// The moment at which the clock jumps over midnight into the day.
std::time_t jumpIntoDay(std::time_t time, const std::tm& moment) {
  std::time_t before = time - 2 * kDay;
  std::time_t within = time;
  while (within - before > 1) {
    const std::time_t middle = before + (within - before) / 2;
    (dayOf(calendar(middle)) < dayOf(moment) ? before : within) = middle;
  }
  return within;
}

class LinuxDates final : public Dates {
 public:
  CalendarTime localTime(AbsoluteTime time) override {
    followZoneChanges();
    const std::tm moment = calendar(unixTime(time));
    return {moment.tm_year + 1900, moment.tm_mon + 1, moment.tm_mday,   moment.tm_hour,
            moment.tm_min,         moment.tm_sec,     moment.tm_gmtoff, moment.tm_zone};
  }

  AbsoluteTime startOfDay(AbsoluteTime time) override {
    followZoneChanges();
    const std::time_t seconds = unixTime(time);
    const std::tm moment = calendar(seconds);
    const auto midnight = shownMidnight(seconds, moment);
    const std::time_t start = midnight ? *midnight : jumpIntoDay(seconds, moment);
    return static_cast<double>(start) - kCFAbsoluteTimeIntervalSince1970;
  }
};

}  // namespace

Dates& dates() {
  static LinuxDates* const instance = new LinuxDates;
  return *instance;
}

}  // namespace qbv::linux_backend
