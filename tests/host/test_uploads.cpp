// The stand-in host's upload helper, on a scripted platform with real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "host/quibvitalscope_host.h"
#include "host/standin/uploads.h"
#include "tests/platform/temporary_folder.h"
#include "tests/support/commands.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/QBVitalscopeUploader.h"
#include "vitalscope/report/report_class.h"

namespace {

namespace fs = std::filesystem;
using qbv::Value;
using qbv::standin::copyNewFiles;
using qbv::standin::Uploads;
using qbv::test::contentOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr QBVReportReason kHang = QBVReportReasonMainThreadBlock;

class UploadsTest : public testing::Test {
 protected:
  UploadsTest() { qbv::defineReportClass(); }
  void write(const std::string& path, const std::string& text) {
    system.files.createDirectory(path.substr(0, path.rfind('/')));
    ASSERT_TRUE(system.files.writeAtomically(path, text));
  }
  std::string freeze() const { return system.files.home() + "/Library/Logs/quibapp/Diagnostic/4242/freeze"; }
  void ask(unsigned level) {
    QBVitalscopeUploader::sharedInstance()->uploadFileWithReason(kHang, level, true);
  }
  std::int64_t count(const Uploads& uploads, const char* what) const {
    return uploads.status()[what].longLongValue();
  }

  qbv::ScriptedPlatform system;
  qbv::TemporaryFolder outbox;
};

TEST_F(UploadsTest, NewAndChangedFilesAreCopiedPrivatelyAndWhole) {
  const std::string source = system.files.home() + "/logs";
  write(source + "/a", "one");
  write(source + "/deep/er/.b", "two");
  fs::create_symlink("/etc/passwd", source + "/link");
  std::string error;
  const std::string target = outbox / "made/for this";
  EXPECT_EQ(copyNewFiles(source, target, error), 2);
  EXPECT_EQ(contentOf(target + "/a"), "one");
  EXPECT_EQ(contentOf(target + "/deep/er/.b"), "two");
  EXPECT_FALSE(fs::exists(fs::symlink_status(target + "/link")))
      << "somebody else's file may be behind a link";
  for (const auto& entry : fs::recursive_directory_iterator(outbox.path())) {
    struct stat status {};
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, entry.is_directory() ? 0700U : 0600U) << entry.path();
    EXPECT_NE(entry.path().extension(), ".part");
  }
  EXPECT_EQ(copyNewFiles(source, target, error), 0) << "nothing has changed";
  write(source + "/a", "six");  // as long as before
  fs::last_write_time(source + "/a", fs::last_write_time(target + "/a") + std::chrono::seconds(1));
  fs::remove(source + "/deep/er/.b");
  EXPECT_EQ(copyNewFiles(source, target, error), 1);
  EXPECT_EQ(contentOf(target + "/a"), "six");
  EXPECT_EQ(contentOf(target + "/deep/er/.b"), "two") << "what was sent stays";
  EXPECT_EQ(copyNewFiles("/no/such/folder", target, error), 0);
  EXPECT_EQ(error, "");
  EXPECT_EQ(copyNewFiles(source, "/dev/null/outbox", error), -1);
  EXPECT_THAT(error, HasSubstr("/dev/null/outbox"));
}

TEST_F(UploadsTest, RequestsAreAnsweredAtOnceAndFeedbackComesWhenTheyAreDone) {
  auto& uploads = *new Uploads({outbox.path(), ""});
  uploads.offer();
  auto& uploader = *QBVitalscopeUploader::sharedInstance();
  ask(4);
  EXPECT_THAT(uploader.reportIDArray(), IsEmpty()) << "no such folder, no request";
  write(freeze() + "/severe/quibapp_stuck_1.hang", "stack");
  ask(4);
  ask(4);
  EXPECT_THAT(uploader.reportIDArray(), ElementsAre("4242-1")) << "one that has not begun takes all along";
  EXPECT_FALSE(fs::exists(outbox / "4242"));
  system.runUntilIdle();
  EXPECT_EQ(contentOf(outbox / "4242/freeze/severe/quibapp_stuck_1.hang"), "stack");
  EXPECT_THAT(uploader.reportIDArray(), IsEmpty()) << "the feedback was not handed back";
  EXPECT_EQ(count(uploads, "done"), 1);
  ask(4);
  system.runUntilIdle();
  EXPECT_EQ(count(uploads, "requested"), 2);
  EXPECT_EQ(count(uploads, "done"), 2);
}

TEST_F(UploadsTest, WhatCannotBeCopiedIsLoggedAndCounted) {
  auto& uploads = *new Uploads({"/dev/null/outbox", ""});
  uploads.offer();
  write(freeze() + "/light/a", "x");
  ask(1);
  system.runUntilIdle();
  EXPECT_EQ(count(uploads, "failed"), 1);
  EXPECT_THAT(QBVitalscopeUploader::sharedInstance()->reportIDArray(), IsEmpty());
  EXPECT_THAT(system.log.messages(), ElementsAre(HasSubstr("/dev/null/outbox")));
}

TEST_F(UploadsTest, ACommandLearnsWhatToUpload) {
  auto& uploads = *new Uploads({"", "send 'it' \"$UPLOAD_FOLDER\""});
  uploads.offer();
  write(freeze() + "/light/a", "x");
  std::string line;
  system.processes.setCallback([&](const std::string& commandLine) {
    line = commandLine;
    return std::optional<std::string>("0\n");
  });
  ask(1);
  system.runUntilIdle();
  EXPECT_EQ(line,
            "UPLOAD_FOLDER=" + freeze() +
                "/light UPLOAD_ID=4242-1 UPLOAD_BY_USER=1 bash -c 'send '\\''it'\\'' \"$UPLOAD_FOLDER\"' "
                "</dev/null >/dev/null; echo $?");
  EXPECT_EQ(count(uploads, "done"), 1);
  EXPECT_EQ(uploads.status()["command"], Value("send 'it' \"$UPLOAD_FOLDER\""));
  system.processes.setCallback([](const std::string&) { return std::optional<std::string>("3\n"); });
  ask(1);
  system.runUntilIdle();
  EXPECT_EQ(count(uploads, "failed"), 1);
}

// A host in C finds out what it is asked for.
TEST_F(UploadsTest, AHostInCLearnsTheFolder) {
  static std::string folder;
  qbv_host_set_upload_helper(
      [](void*, int) -> const char* {
        folder = qbv_host_upload_folder();
        return nullptr;
      },
      nullptr, nullptr);
  ask(3);
  EXPECT_EQ(folder, freeze() + "/heavier");
}

TEST(UploadFolder, IsUnknownWhereNoMonitorIsLoaded) {
  const qbv::ScriptedPlatform system;
  EXPECT_EQ(qbv_host_upload_folder(), nullptr);
}

}  // namespace
