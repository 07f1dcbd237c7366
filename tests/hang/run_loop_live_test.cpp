// The run-loop monitor on this machine: loops that sleep are no finding, what blocks them is logged by name.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#ifdef QBV_TEST_GLIB
#include <glib.h>
#endif

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>

#include "tests/end_to_end/blocked_work.h"
#include "tests/support/commands.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace {

namespace fs = std::filesystem;
using qbv::test::contentOf;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

// What a check may need on a busy machine, beyond the two seconds and the one between checks.
constexpr double kLongEnough = 5;

class LiveRunLoopMonitor : public testing::Test {
 protected:
  LiveRunLoopMonitor() {
    qbv::platform();
    QBVitalscopeBacktrace::load();
    testing::internal::CaptureStderr();
    QBVitalscopeANRMonitor_RunLoop::sharedInstance()->start();
  }
  static std::string logged() {
    std::string text = testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    return text;
  }
  static void stopAfter(double seconds) {
    std::thread([seconds] {
      std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
      qbv::platform().runLoop.stop();
    }).detach();
  }
};

TEST_F(LiveRunLoopMonitor, OurLoopMaySleepButNeitherABlockNorAnEventMayHoldItUp) {
  qbv::RunLoop& loop = qbv::platform().runLoop;
  stopAfter(1.5);  // for the start's own CPU use to fade
  loop.run();
  logged();
  stopAfter(4);
  loop.run();
  EXPECT_EQ(logged(), "");

  loop.postEvent(
      [](void*) {
        importAttachments(kLongEnough);
        qbv::platform().runLoop.stop();
      },
      nullptr);
  loop.run();
  EXPECT_THAT(logged(),
              AllOf(HasSubstr("QBKorvaneANRMonitor_RunLoop: \n"),
                    ContainsRegex("copyFromSlowShare(.|\n)*importAttachments(.|\n)*qbv_sendEvent")));

  qbv::platform().dispatch.dispatch_async(qbv::platform().dispatch.dispatch_get_main_queue(), [] {
    importAttachments(kLongEnough);
    qbv::platform().runLoop.stop();
  });
  loop.run();
  EXPECT_THAT(logged(), AllOf(HasSubstr("importAttachments"), Not(HasSubstr("qbv_sendEvent"))));
}

// The status of the monitor's thread, once it carries its name; "" when it never does.
std::string monitorThreadStatus() {
  const auto patience = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < patience) {
    for (const auto& task : fs::directory_iterator("/proc/self/task"))
      if (contentOf(task.path() / "comm") == "quib run loop\n") return contentOf(task.path() / "status");
    std::this_thread::yield();
  }
  return "";
}

TEST_F(LiveRunLoopMonitor, ItsThreadTakesNoSignalsButThoseOfItsOwnFaults) {
  const std::string status = monitorThreadStatus();
  const std::size_t line = status.find("SigBlk:\t");
  ASSERT_NE(line, std::string::npos) << status;
  const std::uint64_t blocked = std::stoull(status.substr(line + 8), nullptr, 16);
  for (const int number :
       {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD, SIGPIPE, SIGPROF, SIGRTMIN, SIGRTMAX})
    EXPECT_NE(blocked >> (number - 1) & 1, 0u) << number;
  for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL})
    EXPECT_EQ(blocked >> (number - 1) & 1, 0u) << number;
}

#ifdef QBV_TEST_GLIB
TEST_F(LiveRunLoopMonitor, GlibsLoopMaySleepButNoCallbackMayHoldItUp) {
  const auto turn = [](unsigned milliseconds) {
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    const auto quit = [](gpointer running) -> gboolean {
      g_main_loop_quit(static_cast<GMainLoop*>(running));
      return G_SOURCE_REMOVE;
    };
    g_timeout_add(milliseconds, quit, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
  };
  qbv::platform().runLoop.descriptor();  // joins the default context
  turn(1500);
  logged();
  turn(4000);
  EXPECT_EQ(logged(), "");

  // Turned now and then among work of its own, without waiting, it has not hung either.
  for (int frame = 0; frame < 200; ++frame) {
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_EQ(logged(), "");

  const auto work = [](gpointer) -> gboolean {
    importAttachments(kLongEnough);
    return G_SOURCE_REMOVE;
  };
  g_timeout_add(1, work, nullptr);
  turn(200);
  EXPECT_THAT(logged(),
              ContainsRegex("copyFromSlowShare(.|\n)*importAttachments(.|\n)*g_main_context_dispatch"));
}
#endif

}  // namespace
