#include <gmock/gmock.h>

#include <thread>

#include "report_host.h"
#include "vitalscope/report/QBVitalscopeUploader.h"

namespace {

using qbv::Value;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class UserActionsTest : public ReportTest {
 protected:
  explicit UserActionsTest(bool logs = false) {
    keepsLogs = logs;
    defineUploadHelper();
    // The records of the day and their timer are not what is tested here.
    QBVitalscopeUploader::sharedInstance();
    system.runUntilIdle();
    asked.clear();
  }
  void post(const char* name, const Value& userInfo = {}) {
    system.notifications.defaultCenter().post(name, userInfo);
  }
  void makeReports(const std::string& level, int count) {
    for (int i = 0; i < count; ++i) makeFile(root() + "/freeze/" + level + "/" + std::to_string(i), i);
  }
};

TEST_F(UserActionsTest, EveryLevelWithReportsIsUploaded) {
  report();
  for (const char* const name :
       {"quib_user_report_performance_log", "qbcrash_report_panel_send_button_action"}) {
    post(name);
    system.runUntilIdle();
    EXPECT_THAT(asked, IsEmpty());
  }
  EXPECT_THAT(system.files.contentsOfDirectory(root() + "/freeze"),
              ElementsAre("freeze", "heavier", "light", "moderate", "severe"));
  makeReports("freeze", 1);
  makeFile(root() + "/freeze/light/.hidden");
  for (const char* const name :
       {"quib_user_report_performance_log", "qbcrash_report_panel_send_button_action"}) {
    post(name);
    EXPECT_THAT(asked, IsEmpty()) << "on the thread that posts";
    system.runUntilIdle();
    EXPECT_THAT(std::exchange(asked, {}), ElementsAre("user /freeze/light", "user /freeze/freeze"));
    EXPECT_THAT(report().uploadLogTypes(), ElementsAre(1u, 5u));
  }
}

TEST_F(UserActionsTest, TheNewestFilesOfEachLevelAreListed) {
  makeReports("light", 7);
  makeReports("freeze", 12);
  const std::vector<std::string> files = report().allFreezeLogFiles();
  ASSERT_THAT(files, SizeIs(15));
  for (std::size_t i = 0; i < files.size(); ++i)
    EXPECT_EQ(files[i], root() + "/freeze//" +
                            (i < 5 ? "light/" + std::to_string(i) : "freeze/" + std::to_string(i - 5)));
  EXPECT_THAT(report().arrayOfDate({}, 3), IsEmpty());
  EXPECT_THAT(report().fullPathFiles("/no/such/folder"), IsEmpty());
}

class FolderActionsTest : public UserActionsTest {
 protected:
  FolderActionsTest() : UserActionsTest(true) {}
  // What the user chooses in the panel, with all that happens before and after.
  std::vector<std::string> choose(const std::optional<std::string>& url) {
    system.processes.setChosenFolder(url);
    post("open_diagnostic_folder", Value::Dictionary{{"subType", "freeze"}});
    EXPECT_THAT(asked, IsEmpty());
    system.runLoop.drain();  // asks
    system.runLoop.drain();  // the answer
    return std::exchange(asked, {});
  }
};

TEST_F(UserActionsTest, FoldersAreNotShownWhereNoLogsWereKeptAtTheStart) {
  report();
  keepsLogs = true;
  post("open_diagnostic_folder");
  EXPECT_THAT(system.processes.commandLines(), IsEmpty());
}

TEST_F(FolderActionsTest, TheFolderIsShown) {
  post("open_diagnostic_folder", Value::Dictionary{{"other", 1}});
  EXPECT_THAT(system.processes.commandLines(), ElementsAre("open " + root()));
  post("open_diagnostic_folder", Value::Dictionary{{"subType", "else"}});
  post("open_diagnostic_folder", Value::Dictionary{{"subType", 1}});
  keepsLogs = false;
  post("open_diagnostic_folder");
  system.runLoop.drain();
  EXPECT_THAT(system.processes.commandLines(), SizeIs(1));
  EXPECT_THAT(system.processes.folderRequests(), IsEmpty());
}

TEST_F(FolderActionsTest, APathMayHoldWhatAShellWouldRead) {
  system.files.setHomeDirectory("/home/ada's $HOME; \"x\"");
  system.hostInfo.setFacts({.processIdentifier = 4243});
  post("open_diagnostic_folder");
  EXPECT_THAT(system.processes.commandLines(),
              ElementsAre("open '/home/ada'\\''s $HOME; \"x\"/Library/Logs/quibapp/Diagnostic/4243'"));
}

TEST_F(FolderActionsTest, TheChosenFolderDecidesTheLevel) {
  report();
  const std::string freeze = "file://" + root() + "/freeze";
  EXPECT_THAT(choose(freeze), ElementsAre("user /freeze/freeze"));
  EXPECT_THAT(choose(freeze + "/light/"), ElementsAre("user /freeze/light"));
  EXPECT_THAT(choose(freeze + "/severe"), ElementsAre("user /freeze/severe"));
  EXPECT_THAT(choose("file:///tmp"), ElementsAre("user /freeze"));
  EXPECT_THAT(choose("file://file:///lightfile:///x"), ElementsAre("user /freeze/light"));
  EXPECT_THAT(choose(std::nullopt), IsEmpty());
  EXPECT_EQ(system.processes.folderRequests().front().startFolder, root() + "/freeze");
  EXPECT_EQ(system.processes.folderRequests().front().prompt, "Select");
}

TEST_F(FolderActionsTest, ThePanelIsAskedForOnTheMainThreadWhoeverPosts) {
  report();
  qbv::ClassDefinition(system.runtime, "QBNetworkDiagnosticManager")
      .classMethod(
          "titleSelectStr", +[](qbv::id, qbv::SEL) -> const char* { return "Wählen"; });
  std::thread([&] { post("open_diagnostic_folder", Value::Dictionary{{"subType", "freeze"}}); }).join();
  system.runUntilIdle();
  EXPECT_THAT(system.processes.folderRequests(), IsEmpty());
  system.runLoop.drain();
  ASSERT_THAT(system.processes.folderRequests(), SizeIs(1));
  EXPECT_EQ(system.processes.folderRequests().front().prompt, "Wählen");
}

}  // namespace
