#include <gmock/gmock.h>

#include <barrier>
#include <thread>

#include "report_host.h"
#include "vitalscope/report/report_gate.h"

namespace {

using qbv::FileCall;
using qbv::ReportGate;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr QBVReportReason kHang = QBVReportReasonMainThreadBlock;
constexpr QBVReportReason kMemory = QBVReportReasonAppMemoryOversize;
constexpr QBVReportReason kPower = QBVReportReasonPower;

TEST(ReportGate, WarmUpMustBeExceeded) {
  struct Case {
    unsigned long reason;
    double seconds;  // passes only later than this; negative: never
  };
  for (const Case& c : {Case{1, 5}, Case{3, 30}, Case{6, 30}, Case{0, -1}, Case{2, -1}, Case{4, -1},
                        Case{5, -1}, Case{7, -1}}) {
    ReportGate gate{.startTime = 1000};
    const auto reason = QBVReportReason(c.reason);
    EXPECT_FALSE(gate.decide(reason, 1, 1000 + c.seconds)) << c.reason;
    EXPECT_EQ(gate.reportTimeValue, 0) << c.reason;
    EXPECT_EQ(gate.decide(reason, 1, 1000 + (c.seconds < 0 ? 1e6 : c.seconds + 0.001)), c.seconds >= 0)
        << c.reason;
  }
}

TEST(ReportGate, AClockThatWasSetBackDoesNotBeginTheWarmUpAnew) {
  ReportGate gate{.startTime = 10000};
  EXPECT_TRUE(gate.decide(kHang, 1, 2800));
  EXPECT_FALSE(gate.decide(QBVReportReasonObjectMemoryOversize, 0, 2800));
}

TEST(ReportGate, SpacingHoldsOnlyBetweenReportsOfOneReason) {
  ReportGate gate{.startTime = 0};
  EXPECT_TRUE(gate.decide(kMemory, 0, 100));
  EXPECT_FALSE(gate.decide(kMemory, 0, 129.9));
  EXPECT_EQ(gate.reportTimeValue, 100);
  EXPECT_TRUE(gate.decide(kHang, 4, 129.9));
  EXPECT_EQ(gate.lastReportReason, kHang);
  EXPECT_EQ(gate.lastReportLevel, 4u);
  EXPECT_TRUE(gate.decide(kMemory, 0, 130));
  EXPECT_TRUE(gate.decide(kMemory, 0, 160));
  // Hangs are spaced by their monitor; power reports only by a clock that went back.
  EXPECT_TRUE(gate.decide(kHang, 1, 160.1));
  EXPECT_TRUE(gate.decide(kHang, 1, 160.2));
  EXPECT_TRUE(gate.decide(kPower, 0, 161));
  EXPECT_TRUE(gate.decide(kPower, 0, 161));
  EXPECT_FALSE(gate.decide(kPower, 0, 160));
}

class WriterTest : public ReportTest {
 protected:
  std::string reportNow(QBVReportReason reason, unsigned level = 0) {
    return report().reportWithBacktrace("stack", reason, level, {});
  }
  std::string content(const std::string& path) { return system.files.read(path).value_or("(unreadable)"); }
};

TEST_F(WriterTest, AHangIsWrittenFiveSecondsAfterCreation) {
  report();
  system.advance(4);
  EXPECT_EQ(reportNow(kHang, 2), "");
  EXPECT_FALSE(exists(root()));
  system.advance(2);
  EXPECT_EQ(reportNow(kHang, 2), "2024-01-15_12_00_06");
  const std::string text = content(root() + "/freeze/moderate/quibapp_stuck_2024-01-15_12_00_06.hang");
  EXPECT_THAT(text, HasSubstr("Exception Type:   MainThread Block\n"));
  EXPECT_THAT(text, HasSubstr("\nstack\n"));
}

TEST_F(WriterTest, AReportWithoutBacktraceMovesTheGateAndWritesNothing) {
  keepsLogs = true;
  report();
  system.advance(40);
  for (const std::optional<std::string>& backtrace :
       {std::optional<std::string>(""), std::optional<std::string>()}) {
    system.advance(40);
    EXPECT_EQ(report().reportWithBacktrace(backtrace, kMemory, 3, {}), "");
    EXPECT_EQ(report().lastReportReason(), kMemory);
    EXPECT_EQ(report().lastReportLevel(), 3u);
    EXPECT_EQ(report().reportTimeValue(), system.clock.CFAbsoluteTimeGetCurrent());
  }
  EXPECT_EQ(report().writeToDiskWithBacktrace("stack", QBVReportReasonCPUOverThreshold, 0, {}), "");
  EXPECT_THAT(filesBelow(root()), Each(HasSubstr("_inspect_info_record")));
}

TEST_F(WriterTest, OfReportersThatMeetOnePasses) {
  report();
  system.advance(40);
  constexpr int kReporters = 8;
  std::barrier start(kReporters);
  std::vector<std::string> ids(kReporters);
  std::vector<std::thread> threads;
  for (std::string& id : ids)
    threads.emplace_back([&, this] {
      start.arrive_and_wait();
      id = reportNow(kMemory);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::count(ids.begin(), ids.end(), ""), kReporters - 1);
}

TEST_F(WriterTest, ReasonsGoToTheirFoldersAndOneWithoutAFolderNowhere) {
  keepsLogs = true;
  for (const unsigned long reason : {3UL, 4UL, 6UL, 0UL, 7UL})
    report().writeToDiskWithBacktrace("stack", QBVReportReason(reason), 0, {});
  EXPECT_THAT(filesBelow(root()),
              ElementsAre(root() + "/app_memory_oversize/quibapp_overmemory_2024-01-15_12_00_00.hang",
                          root() + "/object_memory_oversize/quibapp_bigmemory_2024-01-15_12_00_00.hang",
                          root() + "/power/quibapp_power_2024-01-15_12_00_00.hang"));
  EXPECT_FALSE(exists(".hang"));
}

TEST_F(WriterTest, WritingTrimsTheTreeInTheBackground) {
  for (int i = 0; i < 10; ++i) makeFile(root() + "/freeze/light/" + std::to_string(i), 100 - i);
  report().writeToLocal("text", kHang, 5, "id");
  system.runUntilIdle();
  EXPECT_FALSE(exists(root() + "/freeze/light/0"));
  EXPECT_EQ(filesBelow(root() + "/freeze").size(), 10u);
}

TEST_F(WriterTest, TheFolderIsOfferedForUploadInLogKeepingBuilds) {
  defineUploadHelper();
  std::size_t filesThen = 0;
  whileHandling = [&] { filesThen = filesBelow(root() + "/freeze/severe").size(); };
  report().writeToDiskWithBacktrace("stack", kHang, 3, {});
  EXPECT_THAT(asked, IsEmpty());
  keepsLogs = true;
  system.advance(1);
  report().writeToDiskWithBacktrace("stack", kHang, 4, {});
  report().writeToDiskWithBacktrace("", kHang, 4, {});
  EXPECT_THAT(asked, ElementsAre("automatic /freeze/severe"));
  EXPECT_EQ(filesThen, 1u) << "offered before it was written";
}

TEST_F(WriterTest, ASecondWriteAppendsOrReplaces) {
  const std::string path = system.files.home() + "/file";
  QBVitalscopeReport::writeData("one", path);
  QBVitalscopeReport::writeData("two", path);
  EXPECT_EQ(content(path), "two");
  keepsLogs = true;
  QBVitalscopeReport::writeData(" three", path);
  EXPECT_EQ(content(path), "two three");
  system.files.fail(FileCall::map);
  QBVitalscopeReport::writeData("four", path);
  EXPECT_EQ(content(path), "four");
  QBVitalscopeReport::writeData(std::nullopt, path);
  QBVitalscopeReport::writeData("five", std::nullopt);
  EXPECT_EQ(content(path), "four");
}

TEST_F(WriterTest, LeaksArePrunedThenWrittenUnchangedThenOpened) {
  keepsLogs = true;
  for (int i = 0; i < 11; ++i) makeFile(root() + "/leaks/" + std::to_string(10 + i), 100 - i);
  report().writeToDiskWithLeaksInfo("");
  report().writeToDiskWithLeaksInfo("3 leaks\n");
  EXPECT_TRUE(exists(root() + "/leaks/10"));
  system.runUntilIdle();
  EXPECT_FALSE(exists(root() + "/leaks/10"));
  EXPECT_EQ(filesBelow(root() + "/leaks").size(), 11u);
  const std::string path = root() + "//leaks/quibapp_leaks_2024-01-15_12_00_00.hang";
  EXPECT_EQ(content(path), "3 leaks\n");
  EXPECT_THAT(system.processes.openedFiles(), ElementsAre(path));
  // No gate: the next one follows at once.
  system.advance(1);
  report().writeToDiskWithLeaksInfo("4 leaks\n");
  system.runUntilIdle();
  EXPECT_EQ(content(root() + "/leaks/quibapp_leaks_2024-01-15_12_00_01.hang"), "4 leaks\n");
}

TEST_F(WriterTest, AFolderThatCannotBeWrittenLosesTheReportOnly) {
  for (const bool logs : {true, false}) {
    keepsLogs = logs;
    for (const FileCall call : {FileCall::createDirectory, FileCall::createFile, FileCall::open,
                                FileCall::writeAtomically, FileCall::contentsOfDirectory, FileCall::remove})
      system.files.fail(call);
    EXPECT_EQ(report().writeToDiskWithBacktrace("stack", kHang, 1, {}), "2024-01-15_12_00_00");
    report().writeToDiskWithLeaksInfo("leak");
    system.runUntilIdle();
    system.files.clearFailures();
    EXPECT_THAT(filesBelow(system.files.home()), IsEmpty());
    EXPECT_THAT(system.processes.openedFiles(), IsEmpty());
  }
}

// As on a full disk, where a file can be made but not filled.
TEST_F(WriterTest, WhatCannotBeFilledIsNotKept) {
  for (const bool logs : {true, false}) {
    keepsLogs = logs;
    const std::string path = system.files.home() + "/file";
    system.files.fail(FileCall::setSize);
    system.files.fail(FileCall::writeAtomically);
    QBVitalscopeReport::writeData("text", path);
    EXPECT_FALSE(exists(path));
    system.files.clearFailures();
    QBVitalscopeReport::writeData("older", path);
    system.files.fail(FileCall::setSize);
    system.files.fail(FileCall::writeAtomically);
    QBVitalscopeReport::writeData("text", path);
    EXPECT_EQ(content(path), "older");
    system.files.clearFailures();
    system.files.remove(path);
  }
}

TEST_F(WriterTest, CreationMakesTheFoldersOthersWriteToWhereLogsAreKept) {
  keepsLogs = true;
  report();
  EXPECT_THAT(system.files.contentsOfDirectory(root()),
              ElementsAre("dump", "inspect_info_record", "sample_log"));
  EXPECT_EQ(report().startTime(), system.clock.CFAbsoluteTimeGetCurrent());
}

}  // namespace
