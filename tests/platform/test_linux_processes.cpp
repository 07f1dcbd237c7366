#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/child_environment.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

using linux_backend::childEnvironment;
using linux_backend::preloadWithoutOwn;
using testing::ElementsAre;

std::string run(const std::string& commandLine) {
  return linux_backend::processes().run(commandLine);
}

bool hasNoChild() {
  return ::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

void makeProgram(const std::string& path, const std::string& script) {
  std::ofstream(path) << "#!/bin/bash\n" << script;
  ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
}

TEST(ChildEnvironment, OnlyOwnLibrariesLeaveThePreloadList) {
  EXPECT_EQ(preloadWithoutOwn("/opt/q/libquibvitalscope.so.0.1.0:libquibplatform.so"), std::nullopt);
  EXPECT_EQ(preloadWithoutOwn(""), std::nullopt);
  EXPECT_EQ(preloadWithoutOwn(" : "), std::nullopt);
  EXPECT_EQ(preloadWithoutOwn("/a/libother.so /q/libquibvitalscope_host.so  libthird.so:"),
            "/a/libother.so:libthird.so");
  EXPECT_EQ(preloadWithoutOwn("/libquibplatform/libother.so"), "/libquibplatform/libother.so");
}

TEST(ChildEnvironment, KeepsEverythingElseAndPutsTheToolsFirst) {
  const char* const entries[] = {
      "A=1",  "QUIBVITALSCOPE_PID=7", "LD_PRELOAD=libquibvitalscope.so", "PATH=/b:", "EMPTY=", "XPATH=/x",
      nullptr};
  EXPECT_THAT(childEnvironment(entries, "/tools"),
              ElementsAre("A=1", "PATH=/tools:/b:", "EMPTY=", "XPATH=/x"));
  EXPECT_THAT(childEnvironment(entries, ""), ElementsAre("A=1", "PATH=/b:", "EMPTY=", "XPATH=/x"));
  EXPECT_THAT(childEnvironment(entries, "/odd:name"), testing::Contains("PATH=/b:"));
  EXPECT_THAT(childEnvironment(nullptr, "/tools"), ElementsAre("PATH=/tools:/usr/local/bin:/usr/bin:/bin"));
}

TEST(LinuxProcesses, AnswersEveryByteOfStandardOutput) {
  EXPECT_EQ(run("printf 'a\\0b'; printf lost >/dev/null; exit 3"), std::string("a\0b", 3));
  EXPECT_EQ(run("head -c 3000000 /dev/zero").size(), 3'000'000U);
  EXPECT_EQ(run("/no/such/program 2>/dev/null"), "");
  EXPECT_EQ(run("kill -9 $$"), "");
}

// Where the system lets only ancestors trace a process, this holds because the child is named as a tracer.
TEST(LinuxProcesses, ChildrenMayLookAtThisProcess) {
  const std::string command = QBV_SAMPLE " " + std::to_string(::getpid()) + " 0.05 -file /dev/null 2>&1";
  EXPECT_EQ(run(command + "; echo $?"), "0\n");
}

TEST(LinuxProcesses, OutputsOfConcurrentChildrenDoNotMix) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([i] {
      for (int round = 0; round < 5; ++round) {
        const std::string expected = std::to_string(i * 100 + round);
        EXPECT_EQ(run("echo -n " + expected), expected);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(hasNoChild());
}

TEST(LinuxProcesses, ChildrenHaveDefaultSignals) {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
  for (const int number : {SIGINT, SIGPIPE, SIGTERM, SIGUSR1, SIGCHLD}) std::signal(number, SIG_IGN);
  EXPECT_EQ(run("exec grep SigBlk /proc/self/status"), "SigBlk:\t0000000000000000\n");
  // Signals 32 and 33 are the C library's own; it starts children with these two ignored.
  const std::string ignored = run("exec sed -n 's/SigIgn:\t//p' /proc/self/status");
  EXPECT_EQ(std::stoull(ignored, nullptr, 16) & ~0x180000000ULL, 0U) << ignored;
}

TEST(LinuxProcesses, LeavesNoZombieWhateverTheHostDoesWithItsChildren) {
  EXPECT_EQ(run("echo plain"), "plain\n");
  EXPECT_TRUE(hasNoChild());
  std::signal(SIGCHLD, SIG_IGN);
  EXPECT_EQ(run("echo ignored"), "ignored\n");
  EXPECT_TRUE(hasNoChild());
  std::signal(SIGCHLD, [](int) {
    const int saved = errno;
    while (::waitpid(-1, nullptr, WNOHANG) > 0) continue;
    errno = saved;
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(run("echo reaped"), "reaped\n");
  EXPECT_TRUE(hasNoChild());
}

// A host's files, sockets and pipes are not kept open by a program that it knows nothing of.
TEST(LinuxProcesses, ChildrenInheritTheStandardStreamsOnly) {
  const TemporaryFolder folder;
  const int file = ::open((folder / "file").c_str(), O_CREAT | O_RDWR, 0600);
  ASSERT_GE(file, 0);
  EXPECT_EQ(run("cd /proc/self/fd; exec ls -l " + std::to_string(file) + " 2>/dev/null"), "");
  EXPECT_EQ(run("[ -e /proc/self/fd/0 -a -e /proc/self/fd/2 ] && [ ! -e /proc/$$/fd/3 ] && echo yes"),
            "yes\n");
  ::close(file);
}

TEST(LinuxProcesses, ChildrenDoNotSeeTheMonitorsEnvironment) {
  ::setenv("LD_PRELOAD", "/no/libquibvitalscope.so:libm.so.6", 1);
  ::setenv("QUIBVITALSCOPE_TARGET", "1", 1);
  ::setenv("KEPT", "a b", 1);
  EXPECT_EQ(run("echo \"$LD_PRELOAD|$QUIBVITALSCOPE_TARGET|$KEPT\""), "libm.so.6||a b\n");
}

class OpenFileTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* const path = std::getenv("PATH");
    ::setenv("PATH", (folder.path() + ":" + (path != nullptr ? path : "")).c_str(), 1);
  }
  TemporaryFolder folder;
};

// The opener waits for the test, so a call that waited for the opener would never return.
TEST_F(OpenFileTest, HandsThePathOverAndDoesNotWait) {
  ASSERT_EQ(::mkfifo((folder / "go").c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((folder / "told").c_str(), 0600), 0);
  makeProgram(folder / "xdg-open",
              "read line <'" + (folder / "go") + "'; echo -n \"$#:$1\" >'" + (folder / "told") + "'\n");
  const std::string path = "/tmp/it's a \"report\" $HOME.txt";
  linux_backend::processes().openFile(path);
  EXPECT_TRUE(hasNoChild());
  std::ofstream(folder / "go") << "go\n";
  std::string told;
  std::getline(std::ifstream(folder / "told"), told);
  EXPECT_EQ(told, "1:" + path);
}

TEST_F(OpenFileTest, AMissingOpenerIsLoggedOnce) {
  const ScriptedPlatform scripted;
  ::setenv("PATH", folder.path().c_str(), 1);
  linux_backend::processes().openFile("/tmp/first");
  linux_backend::processes().openFile("/tmp/second");
  EXPECT_THAT(scripted.log.messages(), ElementsAre(testing::HasSubstr("/tmp/first")));
  EXPECT_TRUE(hasNoChild());
}

}  // namespace
}  // namespace qbv
