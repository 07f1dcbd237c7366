// The local calendar in real zones: needs the system's zone data.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>
#include <tuple>

#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {
namespace {

// Only the variable: that the C library reads it anew is the backend's business.
void useZone(const char* zone) {
  ASSERT_EQ(setenv("TZ", zone, 1), 0);
}

// Seconds since 2001 of a moment in UTC.
AbsoluteTime utc(int year, int month, int day, int hour = 0, int minute = 0, int second = 0) {
  std::tm moment{};
  moment.tm_year = year - 1900;
  moment.tm_mon = month - 1;
  moment.tm_mday = day;
  moment.tm_hour = hour;
  moment.tm_min = minute;
  moment.tm_sec = second;
  return static_cast<double>(timegm(&moment)) - kCFAbsoluteTimeIntervalSince1970;
}

std::string shown(AbsoluteTime time) {
  const CalendarTime local = dates().localTime(time);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d %+ld ", local.year, local.month, local.day,
                local.hour, local.minute, local.second, local.utcOffsetSeconds);
  return text + local.zone;
}

auto dayOf(AbsoluteTime time) {
  const CalendarTime local = dates().localTime(time);
  return std::tuple(local.year, local.month, local.day);
}

TEST(LinuxClock, AgreesWithTheWallAndNeverGoesBack) {
  const auto seconds = static_cast<double>(std::time(nullptr)) - kCFAbsoluteTimeIntervalSince1970;
  const AbsoluteTime now = clock().CFAbsoluteTimeGetCurrent();
  EXPECT_GE(now, seconds);
  EXPECT_LT(now, seconds + 30);
  std::uint64_t last = clock().monotonicNanoseconds();
  for (int i = 0; i < 1000; ++i) {
    const std::uint64_t next = clock().monotonicNanoseconds();
    ASSERT_GE(next, last);
    last = next;
  }
}

TEST(LinuxDates, FollowsTheZoneVariable) {
  const AbsoluteTime summer = utc(2026, 7, 1, 12, 30, 15);
  useZone("Europe/Berlin");
  EXPECT_EQ(shown(summer), "2026-07-01 14:30:15 +7200 CEST");
  useZone("Asia/Tokyo");
  EXPECT_EQ(shown(summer), "2026-07-01 21:30:15 +32400 JST");
  useZone("UTC0");
  EXPECT_EQ(shown(summer), "2026-07-01 12:30:15 +0 UTC");
  useZone("Europe/Berlin");
  EXPECT_EQ(shown(utc(2026, 1, 1)), "2026-01-01 01:00:00 +3600 CET");
}

TEST(LinuxDates, DropsFractionsTowardsThePast) {
  useZone("UTC0");
  EXPECT_EQ(shown(0.999), "2001-01-01 00:00:00 +0 UTC");
  EXPECT_EQ(shown(-0.001), "2000-12-31 23:59:59 +0 UTC");
}

TEST(LinuxDates, AnswersForTimesThatAreNone) {
  useZone("UTC0");
  EXPECT_EQ(shown(std::numeric_limits<double>::quiet_NaN()), "1970-01-01 00:00:00 +0 UTC");
  EXPECT_GT(dates().localTime(std::numeric_limits<double>::infinity()).year, 9999);
  EXPECT_LT(dates().startOfDay(-std::numeric_limits<double>::infinity()), 0);
}

struct DayCase {
  const char* zone;
  AbsoluteTime within;
  AbsoluteTime start;
};

TEST(LinuxDates, StartOfDayOnDaysOfClockChanges) {
  const DayCase cases[] = {
      // 23 and 25 hours, midnight untouched.
      {"Europe/Berlin", utc(2026, 3, 29, 20), utc(2026, 3, 28, 23)},
      {"Europe/Berlin", utc(2026, 10, 25, 22, 59, 59), utc(2026, 10, 24, 22)},
      // Midnight does not exist: the day begins at 01:00.
      {"America/Santiago", utc(2026, 9, 6, 20), utc(2026, 9, 6, 4)},
      {"America/Santiago", utc(2026, 9, 6, 4), utc(2026, 9, 6, 4)},
      {"Asia/Beirut", utc(2026, 3, 29, 12), utc(2026, 3, 28, 22)},
      // The hour before midnight comes twice; the hour after it comes twice.
      {"America/Santiago", utc(2026, 4, 5, 5), utc(2026, 4, 5, 4)},
      {"America/Santiago", utc(2026, 4, 5, 3, 30), utc(2026, 4, 4, 3)},
      {"America/Havana", utc(2026, 11, 1, 20), utc(2026, 11, 1, 4)},
      {"America/Havana", utc(2026, 11, 1, 5, 30), utc(2026, 11, 1, 4)},
      // The day before was left out of the calendar.
      {"Pacific/Apia", utc(2011, 12, 30, 12), utc(2011, 12, 30, 10)},
  };
  for (const DayCase& one : cases) {
    useZone(one.zone);
    EXPECT_EQ(dates().startOfDay(one.within), one.start)
        << one.zone << ": " << shown(one.within) << " begins " << shown(dates().startOfDay(one.within));
  }
}

TEST(LinuxDates, StartOfDayIsTheFirstMomentOfTheSameDayAllYearRound) {
  for (const char* zone : {"Europe/Berlin", "America/Santiago", "Asia/Beirut", "America/Havana",
                           "Australia/Lord_Howe", "Asia/Kathmandu", "UTC0"}) {
    useZone(zone);
    for (AbsoluteTime time = utc(2026, 1, 1, 0, 17); time < utc(2027, 1, 1); time += 14400) {
      const AbsoluteTime start = dates().startOfDay(time);
      ASSERT_LE(start, time) << zone;
      ASSERT_EQ(dayOf(start), dayOf(time)) << zone << " " << shown(time);
      ASSERT_NE(dayOf(start - 1), dayOf(time)) << zone << " " << shown(time);
    }
  }
}

// A host that sets variables moves its environment about; looking for TZ meanwhile must survive that.
TEST(LinuxDates, SurvivesAnEnvironmentThatMoves) {
  useZone("Asia/Tokyo");
  const AbsoluteTime moment = utc(2026, 7, 1, 12, 30, 15);
  std::atomic<bool> enough = false;
  std::jthread host([&] {
    for (int i = 0; i < 3000; ++i) setenv(("MOVING_" + std::to_string(i)).c_str(), "value", 1);
    enough = true;
  });
  do {
    ASSERT_EQ(shown(moment), "2026-07-01 21:30:15 +32400 JST");
  } while (!enough);
}

}  // namespace
}  // namespace qbv::linux_backend
