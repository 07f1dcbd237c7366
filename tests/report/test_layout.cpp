#include <gmock/gmock.h>

#include <set>
#include <thread>

#include "report_host.h"
#include "vitalscope/report/diagnostic_tree.h"

namespace {

using testing::ElementsAre;

constexpr char kId[] = "2026-11-16_16_44_12";

class LayoutTest : public ReportTest {
 protected:
  std::set<std::string> foldersAtRoot() {
    const auto names = system.files.contentsOfDirectory(root());
    return {names.begin(), names.end()};
  }
};

TEST(ReportFilePath, EveryReasonHasItsFolderAndName) {
  const qbv::DiagnosticTree tree("/R");
  const auto path = [&](unsigned long reason, bool isSample) {
    return qbv::reportFilePath(tree, "/R/freeze//moderate", kId, QBVReportReason(reason), isSample);
  };
  EXPECT_EQ(path(1, false), "/R/freeze//moderate/quibapp_stuck_2026-11-16_16_44_12.hang");
  EXPECT_EQ(path(1, true), "/R//sample_log/quibapp_stuck_2026-11-16_16_44_12_sample.hang");
  EXPECT_EQ(path(3, false), "/R//app_memory_oversize/quibapp_overmemory_2026-11-16_16_44_12.hang");
  EXPECT_EQ(path(4, false), "/R//object_memory_oversize/quibapp_bigmemory_2026-11-16_16_44_12.hang");
  EXPECT_EQ(path(5, false), "/R//leaks/quibapp_leaks_2026-11-16_16_44_12.hang");
  EXPECT_EQ(path(6, false), "/R//power/quibapp_power_2026-11-16_16_44_12.hang");
  EXPECT_EQ(path(6, true), path(6, false));
  for (const unsigned long reason : {0UL, 2UL, 7UL, ~0UL}) EXPECT_EQ(path(reason, false), ".hang");
}

TEST_F(LayoutTest, FixedFoldersLieBelowTheRootAndAreNotMadeByAsking) {
  EXPECT_EQ(report().localLogFolderRootPath(), root());
  EXPECT_EQ(report().appMemoryOversizePath(), root() + "//app_memory_oversize");
  EXPECT_EQ(report().objectMemoryOversizePath(), root() + "//object_memory_oversize");
  EXPECT_EQ(report().leaksReportPath(), root() + "//leaks");
  EXPECT_EQ(report().powerReportPath(), root() + "//power");
  EXPECT_EQ(report().dumpReportPath(), root() + "//dump");
  EXPECT_EQ(report().inspectInfoRecordPath(), root() + "//inspect_info_record");
  EXPECT_EQ(report().sampleLogPath(), root() + "//sample_log");
  EXPECT_EQ(report().freezeRootPath(), root() + "/freeze");
  EXPECT_FALSE(exists(root()));
}

TEST_F(LayoutTest, AskingForALevelFolderMakesIt) {
  const char* const words[] = {"light", "moderate", "heavier", "severe", "freeze"};
  for (unsigned level = 1; level <= 5; ++level) {
    const std::string folder = report().freezeStuckLogPath(level);
    EXPECT_EQ(folder, root() + "/freeze//" + words[level - 1]);
    EXPECT_TRUE(system.files.isDirectory(folder));
  }
  EXPECT_EQ(report().freezeStuckLogPath(0), root() + "/freeze/");
  EXPECT_EQ(report().localFilePathWithReportId(kId, QBVReportReasonMainThreadBlock, 6, false),
            root() + "/freeze//quibapp_stuck_2026-11-16_16_44_12.hang");
  EXPECT_EQ(report().localFilePathWithReportId("", QBVReportReasonMainThreadBlock, 3, true),
            root() + "//sample_log/quibapp_stuck__sample.hang");
}

TEST_F(LayoutTest, LogKeepingBuildMakesTheFoldersThatTheReasonNeeds) {
  keepsLogs = true;
  const std::set<std::string> always{"inspect_info_record", "sample_log", "dump"};
  const std::pair<unsigned long, const char*> cases[] = {{2, nullptr},
                                                         {5, nullptr},
                                                         {9, nullptr},
                                                         {1, "freeze"},
                                                         {3, "app_memory_oversize"},
                                                         {4, "object_memory_oversize"},
                                                         {6, "power"}};
  for (const auto& [reason, folder] : cases) {
    system.files.remove(root());
    report().createRootDirWithReason(QBVReportReason(reason));
    std::set<std::string> expected = always;
    if (folder != nullptr) expected.insert(folder);
    EXPECT_EQ(foldersAtRoot(), expected) << "reason " << reason;
  }
}

TEST_F(LayoutTest, OtherBuildsKeepNothingButTheFreezeTree) {
  keepsLogs = true;
  const std::string kept = report().freezeStuckLogPath(1) + "/old.hang";
  makeFile(kept);
  std::vector<std::string> folders{report().appMemoryOversizePath(), report().objectMemoryOversizePath(),
                                   report().leaksReportPath(),       report().powerReportPath(),
                                   report().dumpReportPath(),        report().inspectInfoRecordPath(),
                                   report().sampleLogPath()};
  for (const std::string& folder : folders) makeFile(folder + "/nested/file");
  keepsLogs = false;
  system.files.clearOperations();
  report().createRootDirWithReason(QBVReportReasonAppMemoryOversize);

  EXPECT_EQ(foldersAtRoot(), std::set<std::string>{"freeze"});
  EXPECT_TRUE(exists(kept));
  std::vector<std::string> removed;
  for (const auto& operation : system.files.operations())
    if (operation.call == qbv::FileCall::remove) removed.push_back(operation.path);
  EXPECT_EQ(removed, folders);
}

TEST_F(LayoutTest, ForkedChildHasARootOfItsOwn) {
  const std::string parent = report().leaksReportPath();
  auto facts = system.hostInfo.facts();
  facts.processIdentifier = 4243;
  system.hostInfo.setFacts(facts);
  EXPECT_EQ(report().leaksReportPath(), system.files.home() + "/Library/Logs/quibapp/Diagnostic/4243//leaks");
  EXPECT_EQ(parent, root() + "//leaks");
}

TEST_F(LayoutTest, FirstUseByManyThreadsGivesOneTree) {
  std::vector<const qbv::DiagnosticTree*> seen(8);
  std::vector<std::thread> threads;
  for (auto& place : seen) threads.emplace_back([&place] { place = &qbv::diagnosticTree(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(seen, std::vector(8, &qbv::diagnosticTree()));
  EXPECT_EQ(seen[0]->root, root());
}

TEST_F(LayoutTest, WithoutAHomeFolderNothingIsMadeInTheWorkingDirectory) {
  keepsLogs = true;
  system.files.setHomeDirectory(std::nullopt);
  report().writeToDiskWithBacktrace("stack", QBVReportReasonMainThreadBlock, 1, {});
  system.runUntilIdle();
  EXPECT_FALSE(exists("~"));
  EXPECT_EQ(system.files.operationCount(qbv::FileCall::createDirectory), 0u);
}

TEST_F(LayoutTest, DatesInNamesFollowTheLocalZone) {
  system.clock.setAbsoluteTime(qbv::ScriptedDates::utc(2024, 3, 9, 23, 59, 22));
  system.dates.setZone(3600, "CET");
  const auto text = [&](bool inFileName) {
    return QBVitalscopeReport::createDateFormatterInFileName(inFileName)
        .stringFromDate(system.clock.CFAbsoluteTimeGetCurrent());
  };
  EXPECT_EQ(text(true), "2024-03-10_00_59_22");
  EXPECT_EQ(text(false), "2024-03-10 00:59:22.0022 +0100");
  EXPECT_EQ(report().currentDateStr(), "2024_03_10");
}

TEST_F(LayoutTest, HostFunctions) {
  EXPECT_STREQ(qbv_reason_path(QBVReportReasonLeaks, 2), "/leaks");
  EXPECT_STREQ(qbv_reason_path(QBVReportReasonAppMemoryOversize, 2), "/app_memory_oversize");
  EXPECT_STREQ(qbv_reason_path(QBVReportReasonMainThreadBlock, 2), "/freeze/moderate");
  EXPECT_STREQ(qbv_reason_path(QBVReportReasonMainThreadBlock, 6), "/freeze");
  for (const unsigned long reason : {0UL, 2UL, 4UL, 6UL, 7UL})
    EXPECT_STREQ(qbv_reason_path(QBVReportReason(reason), 2), "");
  for (unsigned level = 0; level <= 6; ++level) {
    EXPECT_EQ(report().stuckLevelPath(level), qbv_anr_level_path(level));
    EXPECT_EQ(std::string("/freeze") + qbv_anr_level_path(level),
              qbv_reason_path(QBVReportReasonMainThreadBlock, level));
  }
  report().setCurrentUploadReason(QBVReportReasonMainThreadBlock);
  report().setCurrentUploadANRLevel(4);
  EXPECT_EQ(QBVitalscopeReport::currentFirstLevelDirPath(), "/freeze/severe");

  EXPECT_EQ(expanding_tilde_in_path("~/a"), system.files.home() + "/a");
  EXPECT_STREQ(expanding_tilde_in_path("/b~"), "/b~");
  EXPECT_EQ(expanding_tilde_in_path(nullptr), nullptr);

  makeFile(root() + "/dump/deep/file");
  removeDirectory((root() + "//dump").c_str());
  EXPECT_FALSE(exists(root() + "/dump"));
  EXPECT_TRUE(exists(root()));
  removeDirectory(nullptr);
}

}  // namespace
