#include <gtest/gtest.h>

#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

constexpr double kHour = 3600;

class DatesTest : public ::testing::Test {
 protected:
  // Central European time: summer time from 31 March to 27 October 2024.
  void useCentralEurope() {
    scripted.dates.setZone(3600, "CET");
    scripted.dates.addClockChange(ScriptedDates::utc(2024, 3, 31, 1), 7200, "CEST");
    scripted.dates.addClockChange(ScriptedDates::utc(2024, 10, 27, 1), 3600, "CET");
  }
  static std::string format(const char* pattern, AbsoluteTime time) {
    return DateFormatter(pattern).stringFromDate(time);
  }
  ScriptedPlatform scripted;
};

TEST_F(DatesTest, FormatterWritesThePatternsOfReportsInTheLocalZone) {
  const AbsoluteTime time = ScriptedDates::utc(2024, 7, 1, 22, 3, 9) + 0.999;
  EXPECT_EQ(format("yyyy-MM-dd_HH_mm_ss", time), "2024-07-01_22_03_09");
  EXPECT_EQ(format("yyyy-MM-dd HH:mm:ss.ssss xx", time), "2024-07-01 22:03:09.0009 +0000");
  useCentralEurope();
  EXPECT_EQ(format("yyyy-MM-dd HH:mm:ss xx", time), "2024-07-02 00:03:09 +0200");
  scripted.dates.setZone(-(9 * 3600 + 1800), "MART");
  EXPECT_EQ(format("yyyy_MM_dd xx", time), "2024_07_01 -0930");
  EXPECT_EQ(format("HH [] \n", time), "12 [] \n");
  EXPECT_EQ(format("", time), "");
}

TEST_F(DatesTest, MomentsBefore1970And2001AreDroppedTowardsThePast) {
  EXPECT_EQ(format("yyyy-MM-dd HH:mm:ss", -0.5), "2000-12-31 23:59:59");
  EXPECT_EQ(format("yyyy-MM-dd HH:mm:ss", ScriptedDates::utc(1970, 1, 1) - 0.25), "1969-12-31 23:59:59");
  EXPECT_EQ(format("yyyy-MM-dd", ScriptedDates::utc(2000, 2, 29)), "2000-02-29");
}

TEST_F(DatesTest, DaysAreCountedOnTheLocalCalendar) {
  useCentralEurope();
  const AbsoluteTime lateOn30 = ScriptedDates::utc(2024, 3, 30, 22, 59, 59);  // 23:59:59 local
  const AbsoluteTime startOf31 = ScriptedDates::utc(2024, 3, 30, 23);         // 00:00 local
  const AbsoluteTime endOf31 = ScriptedDates::utc(2024, 3, 31, 21, 59, 59);   // 23:59:59 local, 23 hours
  EXPECT_EQ(calendarDaysBetween(lateOn30, startOf31), 1);
  EXPECT_EQ(calendarDaysBetween(startOf31, endOf31), 0);
  EXPECT_EQ(calendarDaysBetween(startOf31, endOf31 + 1), 1);
  const AbsoluteTime startOf27 = ScriptedDates::utc(2024, 10, 26, 22);
  EXPECT_EQ(calendarDaysBetween(startOf27, startOf27 + 25 * kHour - 1), 0) << "a day of 25 hours";
  EXPECT_EQ(calendarDaysBetween(startOf27, startOf27 + 25 * kHour), 1);
  EXPECT_EQ(calendarDaysBetween(startOf27 + 25 * kHour, startOf27), -1);
  EXPECT_EQ(calendarDaysBetween(ScriptedDates::utc(2023, 12, 31, 12), ScriptedDates::utc(2024, 12, 31, 12)),
            366);
}

TEST_F(DatesTest, StartOfDayIsTheFirstMomentThatExists) {
  useCentralEurope();
  EXPECT_EQ(scripted.dates.startOfDay(ScriptedDates::utc(2024, 3, 31, 12)),
            ScriptedDates::utc(2024, 3, 30, 23));
  // A zone whose summer time begins at midnight: 00:00 to 00:59 do not exist on that day.
  const AbsoluteTime change = ScriptedDates::utc(2024, 9, 8, 4);
  scripted.dates.setZone(-4 * 3600, "-04");
  scripted.dates.addClockChange(change, -3 * 3600, "-03");
  EXPECT_EQ(scripted.dates.startOfDay(change + 5 * kHour), change);
  EXPECT_EQ(scripted.dates.localTime(change).hour, 1);
  EXPECT_EQ(scripted.dates.startOfDay(change - 1), change - 24 * kHour);
}

TEST_F(DatesTest, TildeStandsForTheHomeFolderOnlyInFront) {
  scripted.files.setHomeDirectory("/home/someone");
  EXPECT_EQ(expandingTildeInPath("~"), "/home/someone");
  EXPECT_EQ(expandingTildeInPath("~/Library/Logs"), "/home/someone/Library/Logs");
  for (const char* path : {"", "/a/~/b", "~other/x", "a~"}) EXPECT_EQ(expandingTildeInPath(path), path);
  scripted.files.setHomeDirectory("/");
  EXPECT_EQ(expandingTildeInPath("~/x"), "/x");
  EXPECT_EQ(expandingTildeInPath("~"), "/");
  scripted.files.setHomeDirectory(std::nullopt);
  EXPECT_EQ(expandingTildeInPath("~/x"), "~/x");
}

}  // namespace
}  // namespace qbv
