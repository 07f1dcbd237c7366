#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <latch>
#include <thread>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/areas.h"

namespace qbv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class LinuxFilesTest : public testing::Test {
 protected:
  static mode_t modeOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
  }
  // From now on a file of this process cannot grow past the limit, as on a full disk.
  static void limitFileSize(rlim_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  }

  Files& files = linux_backend::files();
  TemporaryFolder folder;
};

TEST_F(LinuxFilesTest, WhatIsMadeIsItsUsersAloneWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    SCOPED_TRACE(mask);
    const std::string base = folder / std::to_string(mask);
    const mode_t before = ::umask(mask);
    EXPECT_TRUE(files.createDirectory(base + "/a//b/"));
    EXPECT_TRUE(files.createFile(base + "/made"));
    EXPECT_TRUE(files.writeAtomically(base + "/written", "text"));
    const int opened = files.open(base + "/opened", false);
    EXPECT_GE(opened, 0);
    EXPECT_EQ(::fcntl(opened, F_GETFD), FD_CLOEXEC);
    files.close(opened);
    EXPECT_EQ(::umask(before), mask);
    for (const char* made : {"", "/a", "/a/b"}) EXPECT_EQ(modeOf(base + made), 0700U) << made;
    for (const char* made : {"/made", "/written", "/opened"}) EXPECT_EQ(modeOf(base + made), 0600U) << made;
  }
}

TEST_F(LinuxFilesTest, FoldersAreMadeOnceAndNeverOverAFile) {
  std::latch start(8);
  std::vector<std::thread> makers;
  std::atomic<int> successes{0};
  for (int i = 0; i < 8; ++i) {
    makers.emplace_back([&] {
      start.arrive_and_wait();
      if (files.createDirectory(folder / "one/two/three")) ++successes;
    });
  }
  for (std::thread& maker : makers) maker.join();
  EXPECT_EQ(successes, 8);

  ASSERT_TRUE(files.createFile(folder / "file"));
  EXPECT_FALSE(files.createDirectory(folder / "file"));
  EXPECT_FALSE(files.createDirectory(folder / "file/below"));
  EXPECT_FALSE(files.createDirectory(""));
}

TEST_F(LinuxFilesTest, AReaderSeesTheOldContentOrTheNew) {
  const std::string path = folder / "content";
  const std::string contents[] = {std::string(200'000, 'a'), std::string(100'000, 'b')};
  ASSERT_TRUE(files.writeAtomically(path, contents[0]));
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (int i = 1; i <= 200; ++i) EXPECT_TRUE(files.writeAtomically(path, contents[i % 2]));
    done = true;
  });
  int reads = 0;
  for (; !done || reads == 0; ++reads) {
    const auto seen = files.read(path);
    EXPECT_TRUE(seen == contents[0] || seen == contents[1]);
  }
  writer.join();
  EXPECT_THAT(files.contentsOfDirectory(folder.path()), ElementsAre("content"));
}

TEST_F(LinuxFilesTest, AFailedWriteLeavesTheOldContentAndNothingElse) {
  ASSERT_TRUE(files.writeAtomically(folder / "kept", "old"));
  ASSERT_TRUE(files.createDirectory(folder / "folder/inside"));
  limitFileSize(1000);
  EXPECT_FALSE(files.writeAtomically(folder / "kept", std::string(5000, 'x')));
  EXPECT_FALSE(files.writeAtomically(folder / "folder", "x"));
  EXPECT_FALSE(files.writeAtomically(folder / "kept/below", "x"));
  EXPECT_FALSE(files.writeAtomically(folder / "missing/below", "x"));
  EXPECT_EQ(files.read(folder / "kept"), "old");
  EXPECT_THAT(files.contentsOfDirectory(folder.path()), UnorderedElementsAre("kept", "folder"));
}

TEST_F(LinuxFilesTest, ReadingTakesEveryByteAndNeverWaits) {
  const std::string bytes("a\0b\xff\n", 5);
  ASSERT_TRUE(files.writeAtomically(folder / "bytes", bytes));
  EXPECT_EQ(files.read(folder / "bytes"), bytes);
  const auto status = files.read("/proc/self/status");  // says it is empty
  ASSERT_TRUE(status);
  EXPECT_THAT(*status, testing::StartsWith("Name:"));
  ASSERT_EQ(::mkfifo((folder / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(files.read(folder / "pipe"), std::nullopt);
  EXPECT_EQ(files.read(folder.path()), std::nullopt);
  EXPECT_EQ(files.read(folder / "missing"), std::nullopt);
  EXPECT_THAT(files.contentsOfDirectory(folder / "bytes"), IsEmpty());
}

TEST_F(LinuxFilesTest, RemovingATreeNeverFollowsALink) {
  ASSERT_TRUE(files.createDirectory(folder / "outside/deep"));
  ASSERT_TRUE(files.createFile(folder / "outside/precious"));
  ASSERT_TRUE(files.createDirectory(folder / "tree/a/b/c"));
  ASSERT_TRUE(files.createFile(folder / "tree/a/b/file"));
  ASSERT_EQ(::symlink((folder / "outside").c_str(), (folder / "tree/a/link").c_str()), 0);
  ASSERT_EQ(::symlink((folder / "outside").c_str(), (folder / "link").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", (folder / "dangling").c_str()), 0);

  EXPECT_TRUE(files.remove(folder / "tree"));
  EXPECT_TRUE(files.remove(folder / "link/"));
  EXPECT_TRUE(files.remove(folder / "dangling"));
  EXPECT_FALSE(files.remove(folder / "missing"));
  EXPECT_FALSE(files.remove(""));
  EXPECT_FALSE(files.remove("/"));
  EXPECT_THAT(files.contentsOfDirectory(folder.path()), ElementsAre("outside"));
  EXPECT_THAT(files.contentsOfDirectory(folder / "outside"), UnorderedElementsAre("deep", "precious"));
}

TEST_F(LinuxFilesTest, RemovalOfAWideTreeLeavesNoDescriptorOpen) {
  for (int i = 0; i < 300; ++i) {
    ASSERT_TRUE(files.createDirectory(folder / ("wide/" + std::to_string(i))));
    ASSERT_TRUE(files.createFile(folder / ("wide/" + std::to_string(i) + "/file")));
  }
  const std::size_t before = files.contentsOfDirectory("/proc/self/fd").size();
  EXPECT_TRUE(files.remove(folder / "wide"));
  EXPECT_FALSE(files.fileExists(folder / "wide"));
  EXPECT_EQ(files.contentsOfDirectory("/proc/self/fd").size(), before);
}

TEST_F(LinuxFilesTest, TheCreationDateIsNotTheModificationDate) {
  const AbsoluteTime before = static_cast<double>(::time(nullptr)) - kCFAbsoluteTimeIntervalSince1970 - 2;
  ASSERT_TRUE(files.createFile(folder / "file"));
  const timespec past[2] = {{1'000'000, 0}, {1'000'000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, (folder / "file").c_str(), past, 0), 0);
  EXPECT_EQ(files.creationDate(folder / "missing"), std::nullopt);
  EXPECT_NE(files.creationDate("/proc/version"), std::nullopt) << "keeps no creation dates";
  struct statx status {};
  ASSERT_EQ(::statx(AT_FDCWD, (folder / "file").c_str(), 0, STATX_BTIME, &status), 0);
  if ((status.stx_mask & STATX_BTIME) == 0) GTEST_SKIP() << "this file system keeps no creation dates";
  const auto date = files.creationDate(folder / "file");
  ASSERT_TRUE(date);
  EXPECT_GT(*date, before);
  EXPECT_LT(*date, before + 3600);
}

TEST_F(LinuxFilesTest, AMappedFileGrowsAndKeepsItsContent) {
  const int file = files.open(folder / "mapped", false);
  ASSERT_GE(file, 0);
  EXPECT_EQ(files.setSize(file, 10'000), 0);
  EXPECT_EQ(files.size(file), 10'000U);
  void* mapping = nullptr;
  ASSERT_EQ(files.map(file, 10'000, &mapping), 0);
  std::memcpy(static_cast<char*>(mapping) + 9'990, "the end...", 10);
  files.unmap(mapping, 10'000);
  EXPECT_EQ(files.setSize(file, 20'000), 0);
  EXPECT_EQ(files.sync(file), 0);
  EXPECT_EQ(files.read(folder / "mapped")->substr(9'990, 11), std::string("the end...\0", 11));
  EXPECT_EQ(files.setSize(file, 4), 0);
  EXPECT_EQ(files.read(folder / "mapped")->size(), 4U);
  EXPECT_NE(files.map(file, 0, &mapping), 0);
  EXPECT_EQ(mapping, nullptr);
  files.close(file);

  files.close(files.open(folder / "mapped", true));
  EXPECT_EQ(files.read(folder / "mapped"), "");
  EXPECT_EQ(files.open(folder.path(), false), -1);
  EXPECT_EQ(files.size(-1), std::nullopt);
}

// A store into a mapping that the disk has no room for would end the process, so growing must fail before.
TEST_F(LinuxFilesTest, GrowingAllocatesTheBlocksOrFails) {
  const int file = files.open(folder / "grown", false);
  ASSERT_GE(file, 0);
  ASSERT_EQ(files.setSize(file, 1'000'000), 0);
  struct stat status {};
  ASSERT_EQ(::fstat(file, &status), 0);
  EXPECT_GE(status.st_blocks * 512, 1'000'000);
  limitFileSize(1'500'000);
  EXPECT_EQ(files.setSize(file, 4'000'000), EFBIG);
  EXPECT_EQ(files.size(file), 1'000'000U);
  files.close(file);
}

TEST_F(LinuxFilesTest, TheHomeFolderIsTheEnvironmentsOrThePasswordDatabases) {
  ::setenv("HOME", "/home/of the/user", 1);
  EXPECT_EQ(files.homeDirectory(), "/home/of the/user");
  ::unsetenv("HOME");
  const auto registered = files.homeDirectory();
  for (const char* nowhere : {"", "relative/to/something"}) {
    ::setenv("HOME", nowhere, 1);
    EXPECT_EQ(files.homeDirectory(), registered) << nowhere;
  }
  EXPECT_EQ(registered.value_or("/").front(), '/');
}

}  // namespace
}  // namespace qbv
