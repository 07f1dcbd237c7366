// What the live view shows, on made-up readings, records and folders.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <limits>

#include "tests/platform/temporary_folder.h"
#include "tests/support/commands.h"
#include "tools/quibvitalscope/watch_process.h"
#include "tools/quibvitalscope/watch_view.h"

namespace qbv::cli {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

constexpr char kStatus[] = "Name:\tx\nVmPTE:\t 24 kB\nRssAnon:\t 1000 kB\nVmSwap:\t 0 kB\n";

std::string stat(const std::string& name, const std::string& state, int user, int system) {
  return "4242 (" + name + ") " + state + " 1 4242 4242 0 -1 4194304 100 0 0 0 " + std::to_string(user) +
         " " + std::to_string(system) + " 0 0 20 0 7 0 98765 1000000 200 18446744073709551615";
}

TEST(WatchProcess, ReadsAnyNameAndTellsTheDeadApart) {
  const auto reading = readingOf(stat("a) R (b", "S", 250, 50), kStatus);
  ASSERT_TRUE(reading);
  EXPECT_EQ(reading->name, "a) R (b");
  EXPECT_EQ(reading->footprintBytes, 1024U * 1024U);
  EXPECT_EQ(reading->cpuTicks, 300U);
  EXPECT_EQ(reading->threads, 7U);
  EXPECT_EQ(reading->startTicks, 98765U);

  EXPECT_FALSE(readingOf(stat("x", "Z", 1, 1), kStatus));
  EXPECT_FALSE(readingOf(stat("x", "S", 1, 1), "Name:\tx\n")) << "a kernel thread has no memory";
  EXPECT_FALSE(readingOf("4242 (x", kStatus));
  EXPECT_FALSE(readingOf(")(", kStatus));
  EXPECT_FALSE(readingOf("", ""));
}

TEST(WatchProcess, CPUUseIsOfOneCoreAndOfTheSpan) {
  ProcessReading before;
  before.cpuTicks = 100;
  ProcessReading after = before;
  after.cpuTicks = 400;
  EXPECT_DOUBLE_EQ(cpuPercent(before, after, 2, 100), 150);
  EXPECT_EQ(cpuPercent(before, after, 0, 100), 0);
  EXPECT_EQ(cpuPercent(after, before, 1, 100), 0);
}

TEST(WatchProcess, SeesItself) {
  const auto self = readProcess(static_cast<std::uint32_t>(getpid()));
  ASSERT_TRUE(self);
  EXPECT_GT(self->footprintBytes, 0U);
  EXPECT_GE(age(*self), 0);
  EXPECT_LT(age(*self), 3600);
  EXPECT_FALSE(readProcess(std::numeric_limits<std::int32_t>::max()));
}

TEST(WatchFindings, ReadsTheHangsOfARecordAndTrustsNothing) {
  EXPECT_EQ(hangTicks(R"({"ANR":{"QBVANR_LEVEL_Light":3,"QBVANR_LEVEL_Freeze":12},"CPU":["20%"]})"),
            (LevelCounts{3, 0, 0, 0, 12}));
  EXPECT_EQ(hangTicks(R"({"ANR":{"QBVANR_LEVEL_Light":-1,"QBVANR_LEVEL_Severe":"many"}})"), LevelCounts{});
  EXPECT_EQ(hangTicks(R"({"ANR":[1,2]})"), LevelCounts{});
  EXPECT_EQ(hangTicks("{}"), LevelCounts{}) << "no hang yet";
  EXPECT_FALSE(hangTicks(""));
  EXPECT_FALSE(hangTicks("[]"));
  EXPECT_FALSE(hangTicks(R"({"ANR":{"QBVANR_LEV)")) << "half written";
}

class WatchFolder : public testing::Test {
 protected:
  void place(const std::string& name, const std::string& text) {
    const std::filesystem::path path = folder / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
  }
  // A report whose main thread is in a function of the program.
  static std::string reportIn(const std::string& function) {
    std::string text = test::contentOf(GOLDEN_FOLDER "/hang.hang");
    const std::string known = "_ZN5paint6Canvas4openERKSs";
    text.replace(text.find(known), known.size(), function);
    return text;
  }

  TemporaryFolder folder;
  FindingsReader reader{folder.path(), 4242};
};

TEST_F(WatchFolder, CountsByLevelAndKindAndReadsTheNewest) {
  EXPECT_FALSE(reader.read(10).hasFolder);
  place("4242/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", reportIn("first"));
  place("4242/freeze/freeze/quibapp_stuck_2026-11-16_16_44_30.hang", "");
  place("4242/power/quibapp_power_2026-11-16_16_44_20.hang", reportIn("second"));
  place("4242/freeze/freeze/2026_11_15_inspect_info_record.hang", R"({"ANR":{"QBVANR_LEVEL_Light":1}})");
  place("4242/sample_log/sample_2026-11-16_16_44_40.hang", "Analysis");
  place("17/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang", reportIn("other"));
  const Findings found = reader.read(2);
  EXPECT_TRUE(found.hasFolder);
  EXPECT_EQ(found.ticks, (LevelCounts{1, 0, 0, 0, 0}));
  EXPECT_EQ(found.hangReports, (LevelCounts{1, 0, 0, 0, 1}));
  EXPECT_EQ(found.otherReports, (std::map<std::string, std::size_t>{{"power", 1}}));
  ASSERT_THAT(found.reports, SizeIs(2));
  EXPECT_EQ(found.reports[0].level, "freeze");
  EXPECT_EQ(found.reports[0].where, "");
  EXPECT_THAT(found.reports[1].where, HasSubstr("second"));
}

TEST_F(WatchFolder, ReadsAReportAgainOnceItHasGrown) {
  const std::string path = "4242/freeze/light/quibapp_stuck_2026-11-16_16_44_12.hang";
  const std::string whole = reportIn("whole");
  place(path, whole.substr(0, 300));
  EXPECT_EQ(reader.read(10).reports.at(0).where, "");
  place(path, whole);
  EXPECT_THAT(reader.read(10).reports.at(0).where, HasSubstr("whole"));
}

WatchState someState() {
  WatchState state;
  state.time = "2026-11-16 16:45:00";
  state.process = 4242;
  state.name = "paint\033[2J shop";
  state.ageSeconds = 90061;
  state.threads = 14;
  for (const double megabytes : {100.0, 180.5, 120.0}) state.memory.add(megabytes);
  state.cpu.add(37.4);
  state.findings.hasFolder = true;
  state.findings.ticks = LevelCounts{3, 1, 0, 0, 2};
  state.findings.hangReports = {1, 0, 0, 0, 1};
  state.findings.otherReports = {{"memory", 2}};
  state.findings.reports = {{"2026-11-16 16:44:12", "hang", "freeze", "open\tdocument … in poll"},
                            {"2026-11-16 16:40:00", "memory", "", ""}};
  return state;
}

TEST(WatchView, TellsEverythingInOneLine) {
  EXPECT_EQ(watchLine(someState()),
            "2026-11-16 16:45:00  memory 120.0 MB  cpu 37 %  threads 14  hangs 3/1/0/0/2  reports 4  "
            "last 2026-11-16 16:44:12 hang freeze, open?document … in poll");
  WatchState bare;
  bare.time = "now";
  EXPECT_EQ(watchLine(bare), "now  memory 0.0 MB  cpu 0 %  threads 0  hangs -  reports 0");
}

TEST(WatchView, FitsItsRowsAndLetsNoNameCommandTheTerminal) {
  const Style style(Style::Mode::never);
  const auto lines = watchLines(someState(), 40, true, style);
  ASSERT_THAT(lines, SizeIs(10));
  EXPECT_EQ(lines[0], "paint?[2J shop [4242]   running 1 d 1:01:01   threads 14   2026-11-16 16:45:00");
  EXPECT_THAT(lines[2], AllOf(HasSubstr("120.0 MB"), HasSubstr("peak 180.5 MB")));
  EXPECT_THAT(lines[4], HasSubstr("light 3  moderate 1  heavier 0  severe 0  freeze 2"));
  EXPECT_THAT(lines[5], HasSubstr("hang 2 (light 1"));
  EXPECT_THAT(lines[8], HasSubstr("open?document … in poll"));
  EXPECT_THAT(watchLines(someState(), 9, true, style), SizeIs(9));
  EXPECT_THAT(watchLines(someState(), 0, true, style), SizeIs(0));
  const auto bare = watchLines({}, 40, false, style);
  EXPECT_THAT(bare, SizeIs(6)) << "no heading above nothing";
  EXPECT_THAT(bare[5], HasSubstr("is the process monitored?"));
}

TEST(WatchView, BarsSpanWhatIsShown) {
  EXPECT_EQ(sparkline({}, 0, true), "");
  EXPECT_EQ(sparkline({0, 50, 100}, 0, true), "_=#");
  EXPECT_EQ(sparkline({0, 100}, 0, false), "▁█");
  EXPECT_EQ(sparkline({5, 5, 5}, 5, true), "___");
  EXPECT_EQ(sparkline({50, 100}, 80, true), "_#") << "a value below the floor lowers it";
  History history;
  for (int i = 0; i < 100; ++i) history.add(100 - i);
  EXPECT_THAT(history.values(), SizeIs(History::kMost));
  EXPECT_EQ(history.peak(), 100) << "the peak outlives the values";
  EXPECT_EQ(durationText(-5), "0:00");
  EXPECT_EQ(durationText(125), "2:05");
  EXPECT_EQ(durationText(3600), "1:00:00");
}

}  // namespace
}  // namespace qbv::cli
