#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;

class ScriptedFilesTest : public ::testing::Test {
 protected:
  ScriptedPlatform scripted;
  ScriptedFiles& files = scripted.files;
  const std::string folder = files.home() + "/a/b";
  const std::string file = folder + "/file";
};

TEST_F(ScriptedFilesTest, CreationDatesFollowTheScriptedClock) {
  ASSERT_TRUE(files.createDirectory(folder));
  scripted.advance(10);
  ASSERT_TRUE(files.createFile(file));
  scripted.advance(10);
  ASSERT_TRUE(files.createFile(file + "/") == false);
  files.createFile(file);
  EXPECT_EQ(files.creationDate(file), ScriptedClock::kStart + 10) << "emptying a file does not make it anew";
  EXPECT_EQ(files.creationDate(folder + "/"), ScriptedClock::kStart);
  EXPECT_TRUE(files.writeAtomically(file, "new"));
  EXPECT_EQ(files.creationDate(file), ScriptedClock::kStart + 20);
  files.setCreationDate(file, 5.0);
  EXPECT_EQ(files.creationDate(file), 5.0);
  files.setCreationDate(file, std::nullopt);
  EXPECT_EQ(files.creationDate(file), std::nullopt);
  std::ofstream(folder + "/foreign") << "x";
  EXPECT_EQ(files.creationDate(folder + "/foreign"), ScriptedClock::kStart);
  EXPECT_TRUE(files.remove(folder));
  EXPECT_FALSE(files.remove(folder));
  EXPECT_EQ(files.creationDate(file), std::nullopt);
}

TEST_F(ScriptedFilesTest, ScriptedFailuresLeaveThingsAsTheyWere) {
  files.createDirectory(folder);
  files.writeAtomically(file, "old");
  files.fail(FileCall::writeAtomically, "/file", EIO, 0, 1);
  EXPECT_FALSE(files.writeAtomically(file, "new"));
  EXPECT_EQ(files.read(file), "old");
  EXPECT_TRUE(files.writeAtomically(file, "new"));
  files.fail(FileCall::createDirectory, "forbidden");
  EXPECT_FALSE(files.createDirectory(folder + "/forbidden"));
  EXPECT_FALSE(files.isDirectory(folder + "/forbidden"));
  files.fail(FileCall::open, "other");
  EXPECT_EQ(files.open(folder + "/other", true), -1);
  EXPECT_THAT(files.contentsOfDirectory(folder), ElementsAre("file"));
  EXPECT_FALSE(files.operations().front().path.empty());
  EXPECT_EQ(files.operationCount(FileCall::writeAtomically), 3u);
}

TEST_F(ScriptedFilesTest, MappingsAreSharedCountedAndMayFail) {
  files.createDirectory(folder);
  const int descriptor = files.open(file, true);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(files.setSize(descriptor, 4096), 0);
  EXPECT_EQ(files.size(descriptor), 4096u);
  void* mapping = &mapping;
  files.fail(FileCall::map, "", ENOMEM, 0, 1);
  EXPECT_EQ(files.map(descriptor, 4096, &mapping), ENOMEM);
  EXPECT_EQ(mapping, nullptr);
  ASSERT_EQ(files.map(descriptor, 4096, &mapping), 0);
  std::memcpy(mapping, "hello", 5);
  EXPECT_EQ(files.mappings(), 1u);
  files.unmap(mapping, 4096);
  files.fail(FileCall::sync, "file", EIO);
  EXPECT_EQ(files.sync(descriptor), EIO);
  files.close(descriptor);
  EXPECT_EQ(files.mappings() + files.openDescriptors(), 0u);
  EXPECT_EQ(files.read(file).value().substr(0, 5), "hello");
}

TEST(ScriptedFiles, HomeIsPrivateAndGoesWithThePlatform) {
  std::string home;
  {
    ScriptedPlatform scripted;
    home = scripted.files.home();
    EXPECT_EQ(platform().files.homeDirectory(), home);
    platform().files.createDirectory(home + "/x");
    platform().files.writeAtomically(home + "/x/f", "");
    EXPECT_EQ(fs::status(home).permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(home + "/x").permissions(), fs::perms::owner_all);
    EXPECT_EQ(fs::status(home + "/x/f").permissions(), fs::perms::owner_read | fs::perms::owner_write);
  }
  EXPECT_FALSE(fs::exists(home));
}

TEST(ScriptedProcesses, AnswersByTextAndLetsTimePass) {
  ScriptedPlatform scripted;
  scripted.processes.answer("leaks", "2 leaks");
  scripted.processes.setCallback([&](const std::string& line) -> std::optional<std::string> {
    if (line.starts_with("sample")) scripted.advance(1.0);
    return line == "exact" ? std::optional<std::string>("callback") : std::nullopt;
  });
  EXPECT_EQ(platform().processes.run("leaks 4242"), "2 leaks");
  EXPECT_EQ(platform().processes.run("sample 4242 1"), "");
  EXPECT_EQ(platform().processes.run("exact"), "callback");
  EXPECT_EQ(scripted.clock.CFAbsoluteTimeGetCurrent(), ScriptedClock::kStart + 1);
  EXPECT_THAT(scripted.processes.commandLines(), ElementsAre("leaks 4242", "sample 4242 1", "exact"));
}

}  // namespace
}  // namespace qbv
