// The main queue and the loop that drains it.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <thread>
#include <utility>
#include <vector>

#include "tests/platform/told_activities.h"

namespace qbv::linux_backend {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

bool readable() {
  pollfd entry{runLoop().descriptor(), POLLIN, 0};
  return poll(&entry, 1, 0) == 1;
}

TEST(LinuxRunLoop, BlocksOfEachThreadRunInTheirOrder) {
  constexpr int kThreads = 8;
  constexpr int kBlocks = 10000;
  std::vector<int> nextOf(kThreads, 0);
  int misplaced = 0;
  int ran = 0;
  std::vector<std::jthread> posters;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    posters.emplace_back([&, thread] {
      for (int i = 0; i < kBlocks; ++i)
        post([&, thread, i] {
          if (nextOf[thread]++ != i) ++misplaced;
          if (++ran == kThreads * kBlocks) runLoop().stop();
        });
    });
  }
  runLoop().run();
  EXPECT_EQ(ran, kThreads * kBlocks);
  EXPECT_EQ(misplaced, 0);
}

// The main thread wakes itself for them while its loop knows how, and is woken where it does not.
TEST(LinuxRunLoop, TimersOfTheMainQueueFireWhicheverLoopTheHostTurnsTo) {
  int firings = 0;
  const DispatchTimerRef timer = dispatch().dispatch_source_create(dispatch().dispatch_get_main_queue());
  dispatch().dispatch_source_set_timer(timer, NSEC_PER_SEC / 100, 0);
  dispatch().dispatch_source_set_event_handler(timer, [&] { ++firings; });
  dispatch().dispatch_resume(timer);
  for (int round = 0; round < 2; ++round) {
    for (firings = 0; firings < 3;) runLoop().runOnce(-1);
    for (firings = 0; firings < 3;) {
      pollfd entry{runLoop().descriptor(), POLLIN, 0};
      ASSERT_EQ(poll(&entry, 1, 30'000), 1);
      runLoop().drain();
    }
  }
  dispatch().dispatch_source_cancel(timer);
  runLoop().drain();  // a firing that waited
  EXPECT_FALSE(runLoop().runOnce(50));
}

TEST(LinuxRunLoop, DrainRunsTheBlocksThatWaitAndNoneTheyAdd) {
  std::vector<int> order;
  EXPECT_FALSE(runLoop().drain());
  post([&] {
    order.push_back(1);
    post([&] { order.push_back(3); });
  });
  post([&] { order.push_back(2); });
  EXPECT_TRUE(readable());
  EXPECT_TRUE(runLoop().drain());
  EXPECT_THAT(order, ElementsAre(1, 2));
  EXPECT_TRUE(readable());
  EXPECT_TRUE(runLoop().drain());
  EXPECT_THAT(order, ElementsAre(1, 2, 3));
  EXPECT_FALSE(readable());
  EXPECT_FALSE(runLoop().drain());
}

// A modal dialog opened in a block spins a loop of its own: what waited behind that block must not wait for
// the dialog's end.
TEST(LinuxRunLoop, LoopNestedInABlockGoesOnWithTheRest) {
  std::vector<int> order;
  post([&] {
    order.push_back(1);
    while (readable()) runLoop().drain();
    order.push_back(4);
  });
  post([&] { order.push_back(2); });
  post([&] { order.push_back(3); });
  runLoop().drain();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
}

TEST(LinuxRunLoop, StopEndsTheInnermostRunOnly) {
  std::vector<int> order;
  std::jthread stopper;
  post([&] {
    order.push_back(1);
    post([&] { stopper = std::jthread([] { runLoop().stop(); }); });
    runLoop().run();
    order.push_back(2);
    post([&] {
      order.push_back(3);
      runLoop().stop();
      post([&] { order.push_back(5); });
      order.push_back(4);
    });
  });
  runLoop().run();
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4));
  runLoop().stop();  // nobody runs: no effect
  EXPECT_TRUE(runLoop().drain());
  EXPECT_THAT(order, ElementsAre(1, 2, 3, 4, 5));
  EXPECT_FALSE(runLoop().runOnce(0));
}

TEST(LinuxRunLoop, ObserversHearThePassesOfOurLoopAndOfThoseNestedInIt) {
  observe();
  runLoop().runOnce(1);
  EXPECT_THAT(heard(), ElementsAre(kEntry, kTimers, kSources, kSleep, kWake, kExit));
  runLoop().runOnce(0);
  EXPECT_THAT(heard(), ElementsAre(kEntry, kTimers, kSources, kExit)) << "that did not wait";

  post([] { told.push_back(kBlock); });
  post([] {
    runLoop().drain();
    runLoop().stop();
  });
  runLoop().run();
  EXPECT_THAT(heard(), ElementsAre(kEntry, kTimers, kSources, kBlock, kExit))
      << "work waited, and a drain in a block is part of the pass";

  runLoop().drain();
  heard();
  post([] { runLoop().runOnce(1); });
  runLoop().runOnce(-1);
  EXPECT_THAT(heard(),
              ElementsAre(kEntry, kTimers, kSources, kEntry, kTimers, kSources, kSleep, kWake, kExit, kExit));
}

TEST(LinuxRunLoop, DrainIsATurnOfItsOwnUnlessTheHostTellsItsWaits) {
  observe();
  post([] { told.push_back(kBlock); });
  runLoop().drain();
  EXPECT_THAT(heard(), ElementsAre(kTimers, kSources, kBlock, kExit));

  runLoop().willWait();
  runLoop().didWake();
  post([] { told.push_back(kBlock); });
  runLoop().drain();
  EXPECT_THAT(heard(), ElementsAre(kSleep, kWake, kTimers, kSources, kBlock));
}

TEST(LinuxRunLoop, OnlyTheMainThreadHasALoop) {
  EXPECT_EQ(runLoop().currentRunLoop(), &runLoop());
  std::jthread([] { EXPECT_EQ(runLoop().currentRunLoop(), nullptr); }).join();
}

TEST(LinuxRunLoop, EventsAreDispatchedInOrderWithBlocksThroughTheApplication) {
  static std::vector<int> order;
  static IMP former = nullptr;
  Runtime& table = platform().runtime;
  const Class application = table.NSClassFromString("NSApplication");
  const SEL sendEvent = table.NSSelectorFromString("sendEvent:");
  const auto hook = +[](id self, SEL selector, id event) {
    order.push_back(0);
    reinterpret_cast<void (*)(id, SEL, id)>(former)(self, selector, event);
  };
  const auto note = [](void* number) { order.push_back(*static_cast<int*>(number)); };
  int first = 1, third = 3;
  runLoop().postEvent(note, &first);
  post([] { order.push_back(2); });
  former = table.class_replaceMethod(application, sendEvent, reinterpret_cast<IMP>(hook), nullptr);
  runLoop().postEvent(note, &third);
  runLoop().drain();
  EXPECT_THAT(order, ElementsAre(0, 1, 2, 0, 3));
}

TEST(LinuxRunLoop, SleepingLoopIsWokenByAPostFromAnotherThread) {
  std::jthread poster([] { post([] { runLoop().stop(); }); });
  runLoop().run();
}

TEST(LinuxRunLoop, DescriptorSuitsLoopsOfOthers) {
  const int descriptor = runLoop().descriptor();
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(runLoop().descriptor(), descriptor);
  EXPECT_GT(descriptor, 100) << "out of the way of low numbers";
  EXPECT_LT(descriptor, FD_SETSIZE) << "fit for select()";
  EXPECT_TRUE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC);
  EXPECT_TRUE(fcntl(descriptor, F_GETFL) & O_NONBLOCK);
}

TEST(LinuxRunLoop, SignalDoesNotCutAWaitShort) {
  static std::atomic<int> alarms = 0;
  struct sigaction action {};
  action.sa_handler = [](int) { ++alarms; };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval every{{0, 5000}, {0, 5000}};
  setitimer(ITIMER_REAL, &every, nullptr);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_FALSE(runLoop().runOnce(60));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 60ms);
  const itimerval off{};
  setitimer(ITIMER_REAL, &off, nullptr);
  EXPECT_GT(alarms, 0);
}

TEST(LinuxRunLoop, ForkedChildLeavesTheParentsPostsAlone) {
  bool ran = false;
  post([&] { ran = true; });
  const pid_t child = fork();
  if (child == 0) {
    std::uint64_t count = 0;
    const bool stole = read(runLoop().descriptor(), &count, sizeof count) > 0;
    _exit(stole || readable() || runLoop().drain() || ran ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(readable());
  EXPECT_TRUE(runLoop().drain());
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace qbv::linux_backend
