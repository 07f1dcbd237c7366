// Queues, workers and timers on real threads.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/dispatch_workers.h"
#include "vitalscope/platform/linux/fork_guard.h"

namespace qbv::linux_backend {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kHour = 3600 * NSEC_PER_SEC;

Dispatch& queues() {
  return dispatch();
}

DispatchQueueRef serialQueue() {
  return queues().dispatch_queue_create("test.serial", QueueKind::serial);
}

// Runs until the condition holds; false after half a minute.
template <class Condition>
bool eventually(Condition condition) {
  const auto deadline = SteadyClock::now() + 30s;
  while (!condition()) {
    if (SteadyClock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

// Is open once open() has been called `count` times. Copies are the same gate: a block that holds one may
// outlive the test's.
class Gate {
 public:
  explicit Gate(int count = 1) : state_(std::make_shared<State>(count)) {}
  void open() const {
    const std::lock_guard lock(state_->mutex);
    --state_->left;
    state_->changed.notify_all();
  }
  // False when it has not opened after half a minute.
  bool wait() const {
    std::unique_lock lock(state_->mutex);
    return state_->changed.wait_for(lock, 30s, [this] { return state_->left <= 0; });
  }

 private:
  struct State {
    explicit State(int count) : left(count) {}
    std::mutex mutex;
    std::condition_variable changed;
    int left;
  };
  std::shared_ptr<State> state_;
};

// A resumed timer that is cancelled at the end of its scope, which then waits for a firing that still runs.
class ScopedTimer {
 public:
  ScopedTimer(const DispatchQueueRef& queue, std::uint64_t interval, Block handler)
      : timer_(queues().dispatch_source_create(queue)) {
    auto held = std::make_shared<std::promise<void>>();
    handlerGone_ = held->get_future();
    queues().dispatch_source_set_timer(timer_, interval, 0);
    queues().dispatch_source_set_event_handler(timer_, [held = std::move(held), handler] { handler(); });
    queues().dispatch_resume(timer_);
  }
  ~ScopedTimer() {
    cancel();
    timer_.reset();
    handlerGone_.wait();
  }
  ScopedTimer(const ScopedTimer&) = delete;
  ScopedTimer& operator=(const ScopedTimer&) = delete;

  void cancel() const { queues().dispatch_source_cancel(timer_); }
  const DispatchTimerRef& ref() const { return timer_; }

 private:
  DispatchTimerRef timer_;
  std::future<void> handlerGone_;
};

std::vector<std::string> threadNames() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(entry.path() / "comm"), name);
    names.push_back(name);
  }
  return names;
}

auto threadsNamed(const std::string& name) {
  const auto names = threadNames();
  return std::count(names.begin(), names.end(), name);
}

// --- queues ---

TEST(LinuxDispatch, SerialQueueKeepsTheOrderOfEachPosterAndNeverOverlaps) {
  constexpr int kThreads = 4;
  constexpr int kBlocks = 2000;
  const auto queue = serialQueue();
  std::vector<int> nextOf(kThreads, 0);  // touched on the queue only: the sanitizer checks that
  int misplaced = 0;
  const Gate done(kThreads * kBlocks);
  std::vector<std::jthread> posters;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    posters.emplace_back([&, thread] {
      for (int i = 0; i < kBlocks; ++i)
        queues().dispatch_async(queue, [&nextOf, &misplaced, thread, i, done] {
          if (nextOf[thread]++ != i) ++misplaced;
          done.open();
        });
    });
  }
  ASSERT_TRUE(done.wait());
  EXPECT_EQ(misplaced, 0);
}

TEST(LinuxDispatch, ConcurrentQueuesRunBlocksSideBySide) {
  const Gate together(3);
  const Gate done(3);
  const auto meet = [together, done] {
    together.open();
    if (together.wait()) done.open();
  };
  const auto own = queues().dispatch_queue_create("test.concurrent", QueueKind::concurrent);
  queues().dispatch_async(queues().dispatch_get_global_queue(), meet);
  queues().dispatch_async(own, meet);
  queues().dispatch_async(own, meet);
  EXPECT_TRUE(done.wait());
}

TEST(LinuxDispatch, QueueLivesUntilItsBlocksHaveRun) {
  const Gate done(100);
  auto queue = serialQueue();
  const std::weak_ptr<DispatchQueue> watched = queue;
  for (int i = 0; i < 100; ++i) queues().dispatch_async(queue, [done] { done.open(); });
  queue.reset();
  EXPECT_TRUE(done.wait());
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

TEST(LinuxDispatchDeath, BlockThatThrowsEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        queues().dispatch_async(queues().dispatch_get_global_queue(), [] { throw 1; });
        Gate().wait();
      },
      "terminate called");
}

// --- workers ---

TEST(LinuxDispatch, NoThreadBeforeThereIsWorkAndOwnThreadsAreQuiet) {
  const std::size_t before = threadNames().size();
  const auto queue = serialQueue();
  const auto idle = queues().dispatch_source_create(queue);
  EXPECT_EQ(threadNames().size(), before);

  std::string name(16, '\0');
  sigset_t blocked;
  const Gate seen;
  queues().dispatch_async(queue, [&, seen] {
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    pthread_getname_np(pthread_self(), name.data(), name.size());
    seen.open();
  });
  ASSERT_TRUE(seen.wait());
  EXPECT_STREQ(name.c_str(), "quib worker");
  for (const int host : {SIGINT, SIGTERM, SIGCHLD, SIGALRM, SIGPIPE, SIGPROF, SIGUSR1, SIGRTMIN, SIGRTMAX})
    EXPECT_EQ(sigismember(&blocked, host), 1) << host;
  EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);

  const ScopedTimer timer(queue, kHour, [] {});
  EXPECT_TRUE(eventually([] { return threadsNamed("quib timer") == 1; }));
  sigset_t own;
  pthread_sigmask(SIG_BLOCK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0) << "the caller's mask is as it was";
}

// Has `count` workers wait for `release`.
void blockWorkers(int count, const Gate& release) {
  const Gate blocked(count);
  for (int i = 0; i < count; ++i)
    queues().dispatch_async(queues().dispatch_get_global_queue(), [blocked, release] {
      blocked.open();
      release.wait();
    });
  ASSERT_TRUE(blocked.wait());
}

TEST(LinuxDispatch, BlockedWorkersHoldNobodyUpUntilThereAre64) {
  const Gate release;
  blockWorkers(63, release);
  const Gate served;
  queues().dispatch_async(serialQueue(), [served] { served.open(); });
  EXPECT_TRUE(served.wait());
  EXPECT_EQ(WorkerPool::shared().workers(), 64U);
  release.open();
}

TEST(LinuxDispatch, TimerBehind64BlockedWorkersFiresWhenOneComesBack) {
  const Gate release;
  blockWorkers(64, release);
  std::atomic<int> late = 0;
  const ScopedTimer timer(serialQueue(), kMillisecond, [&] { ++late; });
  int onMain = 0;
  const ScopedTimer mainTimer(queues().dispatch_get_main_queue(), kMillisecond, [&] { ++onMain; });
  while (onMain < 5) runLoop().runOnce(-1);
  EXPECT_EQ(late, 0) << "no worker is free, and there is no 65th";
  EXPECT_EQ(WorkerPool::shared().workers(), 64U);

  release.open();
  EXPECT_TRUE(eventually([&] { return late > 1; }));
  mainTimer.cancel();
  runLoop().drain();
}

TEST(LinuxDispatch, WorkersGrowToTheirLimitAndRetireWhenIdle) {
  static auto* const pool = new WorkerPool(3, 20ms);
  const Gate release;
  const Gate blocked(3);
  const Gate done(6);
  for (int i = 0; i < 6; ++i)
    pool->push(*new BlockItem([=] {
      blocked.open();
      release.wait();
      done.open();
    }));
  ASSERT_TRUE(blocked.wait());
  EXPECT_EQ(pool->workers(), 3U);
  release.open();
  ASSERT_TRUE(done.wait());
  EXPECT_TRUE(eventually([] { return pool->workers() == 0; }));
  EXPECT_TRUE(eventually([] { return threadsNamed("quib worker") == 0; }));

  const Gate again;
  pool->push(*new BlockItem([again] { again.open(); }));
  EXPECT_TRUE(again.wait());
}

// --- timers ---

TEST(LinuxDispatch, TimerFiresAtOnceAndThenNeverBeforeItsGrid) {
  constexpr auto kInterval = 3ms;
  std::vector<SteadyClock::time_point> times;
  const Gate done;
  const auto start = SteadyClock::now();
  {
    const ScopedTimer timer(serialQueue(), 3 * kMillisecond, [&] {
      times.push_back(SteadyClock::now());
      if (times.size() == 20) done.open();
    });
    queues().dispatch_resume(timer.ref());  // a second one changes nothing
    ASSERT_TRUE(done.wait());
  }
  for (int i = 0; i < 20; ++i) EXPECT_GE(times[static_cast<std::size_t>(i)] - start, i * kInterval) << i;

  const Gate first;
  const ScopedTimer slow(serialQueue(), kHour, [first] { first.open(); });
  EXPECT_TRUE(first.wait());
}

TEST(LinuxDispatch, FiringsThatFallDueWhileTheHandlerRunsMergeIntoOne) {
  constexpr auto kInterval = 20ms;
  SteadyClock::time_point released;
  std::vector<SteadyClock::time_point> later;
  const Gate done;
  int firings = 0;
  const auto start = SteadyClock::now();
  {
    const ScopedTimer timer(queues().dispatch_get_global_queue(), 20 * kMillisecond, [&] {
      if (++firings == 1) {
        eventually([&] { return SteadyClock::now() - start > 10 * kInterval; });
        released = SteadyClock::now();
      } else {
        later.push_back(SteadyClock::now());
        if (later.size() == 4) done.open();
      }
    });
    ASSERT_TRUE(done.wait());
  }
  // One for all that were missed, perhaps one that the timer thread noticed late, then the grid again.
  EXPECT_GE(later[3] - released, kInterval);
}

TEST(LinuxDispatch, HandlerNeverOverlapsItselfOnAConcurrentQueue) {
  std::atomic<int> inside = 0;
  bool overlapped = false;  // not atomic, like the count: the sanitizer sees any overlap
  int firings = 0;
  const Gate done;
  {
    const ScopedTimer timer(queues().dispatch_get_global_queue(), kMillisecond, [&] {
      overlapped = overlapped || ++inside != 1;
      const auto begin = SteadyClock::now();
      eventually([&] { return SteadyClock::now() - begin > 3ms; });
      --inside;
      if (++firings == 30) done.open();
    });
    EXPECT_TRUE(done.wait());
  }
  EXPECT_FALSE(overlapped);
}

TEST(LinuxDispatch, CancelFromTheHandlerEndsFiringsAndLetsTheHandlerGo) {
  auto kept = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = kept;
  const DispatchTimerRef timer = queues().dispatch_source_create(serialQueue());
  queues().dispatch_source_set_timer(timer, kMillisecond, 0);
  static std::atomic<int> firings = 0;
  queues().dispatch_source_set_event_handler(timer, [&timer, kept = std::move(kept)] {
    queues().dispatch_source_cancel(timer);
    ++*kept;  // still there
    ++firings;
  });
  queues().dispatch_resume(timer);
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));

  const Gate clockTicks(10);
  const ScopedTimer clockTimer(serialQueue(), kMillisecond, [clockTicks] { clockTicks.open(); });
  EXPECT_TRUE(clockTicks.wait());
  EXPECT_EQ(firings, 1);
}

TEST(LinuxDispatch, CancelWhileTheHandlerRunsOnAnotherThread) {
  auto kept = std::make_shared<std::atomic<int>>(0);
  const std::weak_ptr<std::atomic<int>> watched = kept;
  const Gate running;
  const Gate cancelled;
  DispatchTimerRef timer = queues().dispatch_source_create(serialQueue());
  queues().dispatch_source_set_timer(timer, kMillisecond, 0);
  queues().dispatch_source_set_event_handler(timer, [running, cancelled, kept = std::move(kept)] {
    running.open();
    cancelled.wait();
    ++*kept;
  });
  queues().dispatch_resume(timer);
  ASSERT_TRUE(running.wait());
  queues().dispatch_source_cancel(timer);
  timer.reset();
  EXPECT_FALSE(watched.expired()) << "the firing that runs goes on";
  cancelled.open();
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

// Also when its firings always fall due while the handler runs.
TEST(LinuxDispatch, TimerLetGoWithoutCancelEnds) {
  auto kept = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = kept;
  DispatchTimerRef timer = queues().dispatch_source_create(serialQueue());
  queues().dispatch_source_set_timer(timer, 1000, 0);
  const Gate fired(3);
  queues().dispatch_source_set_event_handler(timer, [fired, kept = std::move(kept)] {
    const auto begin = SteadyClock::now();
    eventually([&] { return SteadyClock::now() - begin > 1ms; });
    fired.open();
  });
  queues().dispatch_resume(timer);
  EXPECT_TRUE(fired.wait());
  timer.reset();
  EXPECT_TRUE(eventually([&] { return watched.expired(); }));
}

// --- fork and exit ---

int statusOf(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

// What a child of fork() finds: 0 when nothing works and nothing hangs there.
int lookAroundInChild(const DispatchQueueRef& queue, const DispatchTimerRef& timer) {
  alarm(20);  // a child that waits for a lock that was lost in the fork is ended and counts as a failure
  bool touched = false;
  queues().dispatch_async(queue, [&] { touched = true; });
  queues().dispatch_async(queues().dispatch_get_main_queue(), [&] { touched = true; });
  const bool drained = runLoop().runOnce(0);
  queues().dispatch_source_cancel(timer);
  auto another = queues().dispatch_source_create(queue);
  queues().dispatch_source_set_event_handler(another, [&] { touched = true; });
  queues().dispatch_resume(another);
  another.reset();
  return isForkedChild() && !drained && !touched ? 0 : 1;
}

TEST(LinuxDispatch, ForkedChildIsInertWhateverOtherThreadsHeldAtTheFork) {
  std::atomic<bool> enough = false;
  const auto queue = serialQueue();
  const ScopedTimer timer(serialQueue(), kMillisecond, [] {});
  std::jthread busy([&] {
    while (!enough) {
      queues().dispatch_async(queue, [] {});
      queues().dispatch_async(queues().dispatch_get_main_queue(), [] {});
    }
  });
  for (int i = 0; i < 40; ++i) {
    const pid_t child = fork();
    if (child == 0) _exit(lookAroundInChild(queue, timer.ref()));
    EXPECT_EQ(statusOf(child), 0);
  }
  enough = true;
  busy.join();
  EXPECT_FALSE(isForkedChild());
  const Gate served;
  queues().dispatch_async(queue, [served] { served.open(); });
  EXPECT_TRUE(served.wait());
}

TEST(LinuxDispatch, ChildOfABlockThatForksEndsWhenTheBlockReturns) {
  std::atomic<pid_t> child = 0;
  const Gate forked;
  queues().dispatch_async(serialQueue(), [&, forked] {
    const pid_t made = fork();
    if (made == 0) return;
    child = made;
    forked.open();
  });
  ASSERT_TRUE(forked.wait());
  EXPECT_EQ(statusOf(child), 0);
}

void exitWhileHandlersRun() {
  const Gate running(4);
  std::vector<DispatchTimerRef> timers;
  const auto start = [&](std::uint64_t interval, Block handler) {
    timers.push_back(queues().dispatch_source_create(serialQueue()));
    queues().dispatch_source_set_timer(timers.back(), interval, 0);
    queues().dispatch_source_set_event_handler(timers.back(), std::move(handler));
    queues().dispatch_resume(timers.back());
  };
  start(kMillisecond / 10, [] {});
  for (int i = 0; i < 4; ++i)
    start(kMillisecond, [running] {
      running.open();
      Gate().wait();
    });
  running.wait();
  std::exit(0);
}

TEST(LinuxDispatchDeath, ExitWhileHandlersRunEndsCleanlyAndAtOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto begin = SteadyClock::now();
  EXPECT_EXIT(exitWhileHandlersRun(), testing::ExitedWithCode(0), "^$");
  EXPECT_LT(SteadyClock::now() - begin, 20s) << "the handlers would go on for 30 seconds";
}

void dispatchDuringExit() {
  // Registered before the workers exist, so it runs after they have been told.
  std::atexit([] {
    queues().dispatch_async(queues().dispatch_get_global_queue(), [] {
      static constexpr char text[] = "block began during exit";
      [[maybe_unused]] const auto done = write(STDERR_FILENO, text, sizeof text - 1);
    });
    std::promise<void> never;
    never.get_future().wait_for(100ms);
  });
  const Gate served;
  queues().dispatch_async(queues().dispatch_get_global_queue(), [served] { served.open(); });
  served.wait();
  std::exit(0);
}

TEST(LinuxDispatchDeath, NoBlockBeginsOnceTheProcessExits) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(dispatchDuringExit(), testing::ExitedWithCode(0), "^$");
}

}  // namespace
}  // namespace qbv::linux_backend
