// The main queue in GLib's default main context. This program is linked with GLib; the library is not.
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <thread>
#include <utility>
#include <vector>

#include "tests/platform/told_activities.h"

namespace qbv::linux_backend {
namespace {

using testing::ElementsAre;

// Turns the loop until it is quit, as gtk_main() does.
class Loop {
 public:
  ~Loop() { g_main_loop_unref(loop_); }
  void run() { g_main_loop_run(loop_); }
  void quit() { g_main_loop_quit(loop_); }

 private:
  GMainLoop* loop_ = g_main_loop_new(nullptr, FALSE);
};

int turnWithoutWaiting() {
  int turns = 0;
  while (g_main_context_iteration(nullptr, FALSE)) ++turns;
  return turns;
}

TEST(LinuxGlibLoop, BlocksRunInALoopThatKnowsNothingOfThem) {
  EXPECT_FALSE(runLoop().mainLoopSeen());
  EXPECT_STREQ(runLoop().mainLoopKind(), "none seen");
  Loop loop;
  std::vector<int> order;
  post([&] { order.push_back(1); });
  EXPECT_FALSE(runLoop().mainLoopSeen()) << "posting is no pass";
  std::jthread poster([&] {
    post([&] { order.push_back(2); });
    post([&] { loop.quit(); });
  });
  loop.run();
  EXPECT_THAT(order, ElementsAre(1, 2));
  EXPECT_TRUE(runLoop().mainLoopSeen());
  EXPECT_STREQ(runLoop().mainLoopKind(), "GLib");
}

// As when the library is loaded into a program that has long been running.
TEST(LinuxGlibLoop, LoopThatSleepsAlreadyIsJoinedFromAnotherThread) {
  Loop loop;
  std::jthread poster;
  const auto startPoster = [](gpointer data) -> gboolean {
    auto& [thread, sleeping] = *static_cast<std::pair<std::jthread&, Loop&>*>(data);
    thread = std::jthread([&loop = sleeping] { post([&] { loop.quit(); }); });
    return G_SOURCE_REMOVE;
  };
  std::pair<std::jthread&, Loop&> both{poster, loop};
  g_idle_add(startPoster, &both);
  loop.run();
  EXPECT_STREQ(runLoop().mainLoopKind(), "GLib");
}

TEST(LinuxGlibLoop, APassThatRunsNothingIsSeen) {
  post([] {});
  runLoop().drain();
  EXPECT_STREQ(runLoop().mainLoopKind(), "descriptor");
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_STREQ(runLoop().mainLoopKind(), "GLib");
}

// A block that opens a modal dialog turns a loop within itself, and so within our source's callback.
TEST(LinuxGlibLoop, LoopNestedInABlockGoesOnWithTheRest) {
  std::vector<int> order;
  Loop outer;
  post([&] {
    order.push_back(1);
    Loop dialog;
    post([&] {
      order.push_back(3);
      dialog.quit();
    });
    dialog.run();
    order.push_back(4);
    outer.quit();
  });
  post([&] { order.push_back(2); });
  outer.run();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
}

gboolean noteTimeout(gpointer) {
  told.push_back(kTimeout);
  return G_SOURCE_REMOVE;
}

TEST(LinuxGlibLoop, ObserversHearPassesThatSleepAndPassesThatDoNot) {
  post([] {});
  turnWithoutWaiting();
  observe();
  g_timeout_add(1, noteTimeout, nullptr);
  g_main_context_iteration(nullptr, TRUE);
  EXPECT_THAT(heard(), ElementsAre(kSleep, kWake, kTimers, kSources, kTimeout));
  post([] { told.push_back(kBlock); });
  g_main_context_iteration(nullptr, FALSE);
  g_main_context_iteration(nullptr, FALSE);
  EXPECT_THAT(heard(), ElementsAre(kExit, kTimers, kSources, kBlock, kExit, kTimers, kSources));
}

TEST(LinuxGlibLoop, NestedLoopIsToldWithinThePassThatTurnsIt) {
  post([] {});
  turnWithoutWaiting();
  observe();
  post([] {
    told.push_back(kBlock);
    g_timeout_add(1, noteTimeout, nullptr);
    g_main_context_iteration(nullptr, TRUE);
    told.push_back(kBlock);
  });
  g_main_context_iteration(nullptr, TRUE);
  EXPECT_THAT(heard(), ElementsAre(kSleep, kWake, kTimers, kSources, kBlock, kSleep, kWake, kTimers, kSources,
                                   kTimeout, kBlock));
}

TEST(LinuxGlibLoop, BlocksAreATurnOfTheirOwnWhereTheHostTookThePollAway) {
  post([] {});
  turnWithoutWaiting();
  g_main_context_set_poll_func(nullptr, nullptr);
  post([] {});
  turnWithoutWaiting();
  observe();
  post([] { told.push_back(kBlock); });
  turnWithoutWaiting();
  EXPECT_THAT(heard(), ElementsAre(kTimers, kSources, kBlock, kExit));
}

int hostPolls = 0;
int longestWait = 0;  // milliseconds
GPollFunc chained = nullptr;
int hostPoll(GPollFD* entries, guint count, gint timeout) {
  ++hostPolls;
  longestWait = std::max(longestWait, timeout < 0 ? INT_MAX : timeout);
  return chained(entries, count, timeout);
}
void setHostPoll() {
  chained = g_main_context_get_poll_func(nullptr);
  g_main_context_set_poll_func(nullptr, hostPoll);
}

TEST(LinuxGlibLoop, PollFunctionOfTheHostIsKept) {
  int ran = 0;
  setHostPoll();
  post([&] { ++ran; });
  ASSERT_NE(g_main_context_get_poll_func(nullptr), &hostPoll) << "wrapped";
  turnWithoutWaiting();
  EXPECT_GT(hostPolls, 0);
  EXPECT_EQ(ran, 1);

  hostPolls = 0;
  g_main_context_set_poll_func(nullptr, nullptr);
  setHostPoll();
  runLoop().drain();
  post([&] { ++ran; });
  turnWithoutWaiting();
  EXPECT_GT(hostPolls, 0);
  EXPECT_EQ(ran, 2);
  EXPECT_STREQ(runLoop().mainLoopKind(), "GLib") << "told by the source, though the wrapper is gone";
}

TEST(LinuxGlibLoop, LoopWakesByItselfForTimersOfTheMainQueue) {
  setHostPoll();
  Loop loop;
  int firings = 0;
  const DispatchTimerRef timer = dispatch().dispatch_source_create(dispatch().dispatch_get_main_queue());
  dispatch().dispatch_source_set_timer(timer, NSEC_PER_SEC / 50, 0);
  dispatch().dispatch_source_set_event_handler(timer, [&] {
    if (++firings == 10) loop.quit();
  });
  dispatch().dispatch_resume(timer);
  loop.run();
  EXPECT_EQ(firings, 10);
  EXPECT_LE(longestWait, 20);

  dispatch().dispatch_source_cancel(timer);
  longestWait = 0;
  std::jthread([&] { post([&] { loop.quit(); }); });
  loop.run();
  EXPECT_EQ(longestWait, INT_MAX) << "there is nothing to wake for";
}

// A script may turn the default context on a thread of its own. Blocks for the main thread must wait, and
// that thread must be able to sleep meanwhile.
TEST(LinuxGlibLoop, AnotherThreadsLoopNeitherRunsTheBlocksNorSpins) {
  std::thread::id ranOn;
  post([&] { ranOn = std::this_thread::get_id(); });
  std::jthread([&] {
    Loop loop;
    g_timeout_add(
        50,
        [](gpointer quit) -> gboolean {
          static_cast<Loop*>(quit)->quit();
          return G_SOURCE_REMOVE;
        },
        &loop);
    setHostPoll();  // chains to ours, so it counts each wait of the loop
    loop.run();
  }).join();
  EXPECT_LT(hostPolls, 20);
  EXPECT_EQ(ranOn, std::thread::id());
  EXPECT_FALSE(runLoop().mainLoopSeen());
  turnWithoutWaiting();
  EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(LinuxGlibLoop, DescriptorThatTheHostClosedIsMadeAgain) {
  int ran = 0;
  post([&] { ++ran; });
  const int descriptor = runLoop().descriptor();
  close(descriptor);
  turnWithoutWaiting();
  post([&] { ++ran; });
  turnWithoutWaiting();
  EXPECT_EQ(ran, 2);
  EXPECT_EQ(runLoop().descriptor(), descriptor);
  EXPECT_EQ(turnWithoutWaiting(), 0) << "the loop may sleep again";
}

TEST(LinuxGlibLoop, ForkedChildsLoopLeavesTheParentsBlocksAlone) {
  int ran = 0;
  post([&] { ++ran; });
  const pid_t child = fork();
  if (child == 0) _exit(turnWithoutWaiting() == 0 && ran == 0 ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  turnWithoutWaiting();
  EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace qbv::linux_backend
