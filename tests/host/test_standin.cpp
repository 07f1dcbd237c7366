#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/control/client.h"
#include "tests/end_to_end/host_process.h"
#include "tests/support/commands.h"

namespace {

namespace fs = std::filesystem;
using e2e::eventually;
using e2e::HostProcess;
using qbv::control::Client;
using qbv::test::Outcome;
using qbv::test::shell;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

#ifdef QBV_SANITIZED
constexpr bool kPreload = false;  // a sanitized library cannot be loaded first
#else
constexpr bool kPreload = true;
#endif

class StandIn : public testing::Test {
 protected:
  StandIn() {
    unsetenv("DISPLAY");
    setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1);
  }

  // As the launcher does: the process that is meant keeps its id when it executes the program.
  HostProcess preloaded() const {
    return HostProcess(
        "/bin/sh",
        {"-c", "export QUIBVITALSCOPE_TARGET=$$ LD_PRELOAD=\"$0\"; exec \"$1\"", STANDIN_LIBRARY, EPOLL_HOST},
        home_.path());
  }
  HostProcess plain() const { return HostProcess(EPOLL_HOST, {}, home_.path()); }
  // Under the stand-in, in the way that this build allows.
  HostProcess started() const { return kPreload ? preloaded() : plain(); }
  static void loadLate(HostProcess& host) {
    if (!kPreload) host.tell({std::string("load ") + STANDIN_LIBRARY});
  }

  fs::path socketOf(const HostProcess& host) const {
    return runtime_.path() / "quibvitalscope" / (std::to_string(host.pid()) + ".sock");
  }
  static qbv::Value status(const HostProcess& host) {
    std::string error;
    const auto client = Client::connect(host.pid(), error);
    const auto facts = client != nullptr ? client->status(error) : std::nullopt;
    EXPECT_TRUE(facts) << error;
    return facts.value_or(qbv::Value());
  }
  static bool post(const HostProcess& host, const char* name) {
    std::string error;
    const auto client = Client::connect(host.pid(), error);
    return client != nullptr && client->post(name, {}, error);
  }
  static bool listens(const HostProcess& host) {
    std::string error;
    return Client::connect(host.pid(), error) != nullptr;
  }
  static bool countsHangs(HostProcess& host) {
    host.tell({"turn 1.5", "block 3.5", "turn 0.5"});
    return host.finished() && status(host)[qbv::control::kHangs]["light"].longLongValue() > 0;
  }

  e2e::TemporaryFolder runtime_;
  e2e::TemporaryFolder home_;
};

TEST_F(StandIn, SignsInAtTheFirstPassOfTheLoop) {
  HostProcess host = started();
  loadLate(host);
  host.tell({"block 0.1"});
#ifndef __SANITIZE_THREAD__  // the thread sanitizer has a thread of its own
  host.tell({"threads 1"});
#endif
  ASSERT_TRUE(host.finished()) << "a thread before the loop has turned";
  EXPECT_FALSE(fs::exists(runtime_.path() / "quibvitalscope"));

  host.tell({"turn 0.01"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(eventually([&] { return listens(host); }));
  ASSERT_TRUE(eventually([&] { return status(host)[qbv::control::kWatchingMainThread].boolValue(); }));
  const qbv::Value facts = status(host);
  EXPECT_EQ(facts[qbv::control::kProcessId].longLongValue(), host.pid());
  EXPECT_EQ(*facts[qbv::control::kExecutable].string(), "epoll_host");
  EXPECT_EQ(*facts[qbv::control::kDiagnosticFolder].string(), host.diagnosticRoot().string());
  EXPECT_EQ(*facts[qbv::control::kMainLoop].string(), "descriptor");
  EXPECT_TRUE(facts[qbv::control::kSignedIn].boolValue());
  EXPECT_TRUE(facts[qbv::control::kInternalAccount].boolValue());
  EXPECT_TRUE(facts[qbv::control::kKeepsLogs].boolValue());
  EXPECT_TRUE(facts[qbv::control::kActive].boolValue()) << "no display, so always in front";
  EXPECT_THAT(qbv::control::listeningProcesses(), testing::ElementsAre(host.pid()));

  EXPECT_TRUE(countsHangs(host));
  ASSERT_TRUE(post(host, "Noti_LogOut"));
  EXPECT_TRUE(eventually([&] { return !status(host)[qbv::control::kWatchingMainThread].boolValue(); }));
  EXPECT_FALSE(status(host)[qbv::control::kSignedIn].boolValue());

  const fs::path socket = socketOf(host);
  EXPECT_TRUE(fs::exists(socket));
  EXPECT_EQ(host.exitStatus(), 0);
  EXPECT_FALSE(fs::exists(socket));
}

TEST_F(StandIn, RunLoopMonitorStartsOnRequestFromTheMainLoop) {
  const auto watches = [](const HostProcess& host) {
    return eventually([&] {
      const std::vector<std::string> names = host.threadNames();
      return std::ranges::count(names, "quib run loop") == 1;
    });
  };
  HostProcess host = started();
  loadLate(host);
  host.tell({"turn 0.1"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(eventually([&] { return listens(host); }));
  EXPECT_FALSE(status(host)[qbv::control::kWatchingRunLoop].boolValue());
  EXPECT_THAT(host.threadNames(), testing::Not(testing::Contains("quib run loop")));
  for (int time = 0; time < 2; ++time)
    ASSERT_TRUE(post(host, qbv::control::kWatchRunLoopNotification)) << "the second changes nothing";
  host.tell({"turn 0.1"});
  ASSERT_TRUE(host.finished());
  EXPECT_TRUE(watches(host));
  EXPECT_TRUE(status(host)[qbv::control::kWatchingRunLoop].boolValue());

  setenv("QUIBVITALSCOPE_WATCH_RUN_LOOP", "1", 1);
  HostProcess fromSignInOn = started();
  unsetenv("QUIBVITALSCOPE_WATCH_RUN_LOOP");
  loadLate(fromSignInOn);
  fromSignInOn.tell({"turn 0.1"});
  ASSERT_TRUE(fromSignInOn.finished());
  EXPECT_TRUE(watches(fromSignInOn));
}

TEST_F(StandIn, LibraryLoadedLateOnAnotherThreadWatchesTheMainThread) {
  HostProcess host = plain();
  host.tell({"turn 0.1", std::string("load ") + STANDIN_LIBRARY, "turn 0.1"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(eventually([&] { return listens(host); }));
  EXPECT_TRUE(countsHangs(host));
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST_F(StandIn, FollowsTheEnvironment) {
  setenv("QUIBVITALSCOPE_EMAIL", "ada@elsewhere.example", 1);
  HostProcess stranger = started();
  setenv("QUIBVITALSCOPE_EMAIL", "ada@" QBV_MAIL_DOMAIN, 1);
  setenv("QUIBVITALSCOPE_LOG", "0", 1);
  HostProcess keepsNoLogs = started();
  for (HostProcess* host : {&stranger, &keepsNoLogs}) {
    loadLate(*host);
    host->tell({"turn 0.1"});
    ASSERT_TRUE(host->finished());
    ASSERT_TRUE(eventually([&] { return listens(*host); }));
  }
  EXPECT_FALSE(status(stranger)[qbv::control::kInternalAccount].boolValue());
  EXPECT_THAT(stranger.threadNames(), Not(Contains("quib timer")));
  EXPECT_TRUE(status(keepsNoLogs)[qbv::control::kInternalAccount].boolValue());
  EXPECT_FALSE(status(keepsNoLogs)[qbv::control::kKeepsLogs].boolValue());
  for (HostProcess* host : {&stranger, &keepsNoLogs}) EXPECT_EQ(host->exitStatus(), 0);
}

TEST_F(StandIn, RuntimeFolderIsNoConditionAndIsKeptTidy) {
  HostProcess killed = started();
  loadLate(killed);
  killed.tell({"turn 0.1"});
  ASSERT_TRUE(killed.finished());
  ASSERT_TRUE(eventually([&] { return listens(killed); }));
  const fs::path left = socketOf(killed);
  ASSERT_EQ(kill(killed.pid(), SIGKILL), 0);
  ASSERT_TRUE(eventually([&] { return !listens(killed); }));
  ASSERT_TRUE(fs::exists(left));

  HostProcess next = started();
  loadLate(next);
  next.tell({"turn 0.1"});
  ASSERT_TRUE(eventually([&] { return listens(next); }));
  EXPECT_FALSE(fs::exists(left));
  EXPECT_EQ(next.exitStatus(), 0);

  unsetenv("XDG_RUNTIME_DIR");
  HostProcess without = started();
  loadLate(without);
  without.tell({"turn 0.1"});
  ASSERT_TRUE(without.finished());
  EXPECT_TRUE(eventually([&] {
    const auto names = without.threadNames();
    return std::ranges::find(names, "quib timer") != names.end();
  }));
  EXPECT_EQ(without.exitStatus(), 0);
}

TEST_F(StandIn, ForkedChildLeavesTheParentsThingsAlone) {
  HostProcess host = started();
  loadLate(host);
  host.tell({"turn 0.5"});
  ASSERT_TRUE(host.finished());
  ASSERT_TRUE(eventually([&] { return listens(host); }));
  host.tell({"fork", "fork", "turn 1"});
  ASSERT_TRUE(host.finished());
  EXPECT_TRUE(fs::exists(socketOf(host)));
  EXPECT_TRUE(status(host)[qbv::control::kWatchingMainThread].boolValue());
  EXPECT_EQ(host.exitStatus(), 0);
}

// The sample tool keeps a tick busy for a second from about two seconds of blocking on; the host exits then.
TEST_F(StandIn, HostExitsInTheMiddleOfATick) {
  for (const char* blocked : {"block 2.1", "block 2.6", "block 3.1"}) {
    HostProcess host = started();
    loadLate(host);
    host.tell({"turn 0.5", blocked});
    ASSERT_TRUE(host.finished());
    EXPECT_EQ(host.exitStatus(), 0) << blocked;
  }
}

#ifndef QBV_SANITIZED

TEST_F(StandIn, ChildrenOfTheHostStayInert) {
  HostProcess host = preloaded();
  host.tell({"turn 0.5"});
  ASSERT_TRUE(eventually([&] { return listens(host); }));
  // The child is a program that would be watched; its loop turns, and nothing may come of it.
  host.tell({"run test -n \"$LD_PRELOAD\" && printf 'turn 0.5\\nthreads 1\\nexit\\n' | " EPOLL_HOST
             " >/dev/null",
             "turn 0.1"});
  ASSERT_TRUE(host.finished());
  EXPECT_THAT(qbv::control::listeningProcesses(), testing::ElementsAre(host.pid()));
  EXPECT_EQ(host.exitStatus(), 0);
  EXPECT_TRUE(fs::is_empty(runtime_.path() / "quibvitalscope"));
}

TEST_F(StandIn, PreloadedAloneItBringsThePlatformInFrontOfTheCLibrary) {
  HostProcess host = preloaded();
  host.tell({"dlopen-from libquibplatform"});
  EXPECT_TRUE(host.finished());
  EXPECT_EQ(host.exitStatus(), 0);
}

TEST_F(StandIn, ProgramsRunAsTheyDoWithoutIt) {
  const std::vector<std::string> commands = {
      "bash -c 'echo out; echo err >&2; (exit 3); sleep 0 & wait; exit 7'",
      "bash -c 'exec 3<>/dev/null 9>&1; echo via nine >&9; for fd in /proc/self/fd/?; do echo $fd; done'",
      "python3 -c 'import os, threading, subprocess\n"
      "print(len(os.listdir(\"/proc/self/task\")), sorted(map(int, os.listdir(\"/proc/self/fd\")))[:4])\n"
      "thread = threading.Thread(target=print, args=(1,))\n"
      "thread.start(); thread.join()\n"
      "print(subprocess.run([\"echo\", \"child\"], stdout=-1).stdout)'",
      "unshare -U true",
      "sh -c 'kill -TERM $$'",
      "ls /nowhere",
      "date -u -d @0"};
  for (const std::string& command : commands) {
    const std::string quiet = "(" + command + ") 2>&1";
    const Outcome without = shell(quiet);
    EXPECT_EQ(shell("export QUIBVITALSCOPE_TARGET=$$; exec env LD_PRELOAD=" STANDIN_LIBRARY " sh -c '" +
                    [&] {
                      std::string quoted;
                      for (const char letter : quiet)
                        quoted += letter == '\'' ? "'\\''" : std::string(1, letter);
                      return quoted;
                    }() +
                    "'"),
              without)
        << command;
    EXPECT_EQ(shell("export LD_PRELOAD=" STANDIN_LIBRARY "; " + quiet), without) << command;
  }
  EXPECT_FALSE(fs::exists(runtime_.path() / "quibvitalscope"));
}

#endif

}  // namespace
