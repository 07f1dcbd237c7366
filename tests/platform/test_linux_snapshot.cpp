// The stack of another thread, whatever it is doing.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "tests/platform/snapshot_threads.h"
#include "vitalscope/platform/linux/frame_records.h"
#include "vitalscope/platform/linux/snapshot_signal.h"

namespace qbv::linux_backend {
namespace {

using namespace test;

TEST(Snapshot, FindsTheCallsOfARunningThread) {
  ChainThread thread(test::spin);
  for (int i = 0; i < 200; ++i) {
    const auto stack = stackOfPatiently(thread.port());
    ASSERT_TRUE(holds(stack, thread.chain())) << "capture " << i << ", " << stack.size() << " frames";
  }
}

TEST(Snapshot, FindsTheCallsOfWaitingThreads) {
  Gate gate;
  ChainThread inPoll([](const auto& stop) {
    while (!stop) poll(nullptr, 0, 200);
  });
  ChainThread inCondition([&](const auto&) { gate.wait(); });
  ChainThread inSleep([](const auto& stop) {
    while (!stop) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  });
  for (const ChainThread* thread : {&inPoll, &inCondition, &inSleep}) {
    waitUntilBlocked(thread->port());
    const auto stack = stackOf(thread->port());
    EXPECT_TRUE(holds(stack, thread->chain())) << stack.size() << " frames";
  }
  gate.release();
}

TEST(Snapshot, FailsForTheCallerForNobodyAndForTheDead) {
  ThreadState state;
  EXPECT_NE(task().thread_get_state(task().mach_thread_self(), &state), KERN_SUCCESS);
  EXPECT_NE(task().thread_get_state(0, &state), KERN_SUCCESS);
  EXPECT_NE(task().thread_get_state(1, &state), KERN_SUCCESS) << "a process that is not ours";
  ThreadPort port = 0;
  {
    TestThread brief([](const auto&) {});
    port = brief.port();
  }
  EXPECT_NE(task().thread_get_state(port, &state), KERN_SUCCESS);
  EXPECT_NE(task().thread_suspend(port), KERN_SUCCESS) << "there is no snapshot of it";
  EXPECT_NE(task().thread_resume(port), KERN_SUCCESS);
}

TEST(Snapshot, ReachesWhoBlocksEverySignalWhileItWaits) {
  ChainThread thread([](const auto& stop) {
    blockAllSignals();
    while (!stop) poll(nullptr, 0, 200);
  });
  waitUntilBlocked(thread.port());
  EXPECT_TRUE(holds(stackOf(thread.port()), thread.chain()));
  // No signal waits for it to come out.
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, snapshotSignal()), 0);
}

TEST(Snapshot, WhoSpinsWithSignalsBlockedIsAFailureNotAHang) {
  ChainThread thread([](const auto& stop) {
    blockAllSignals();
    test::spin(stop);
  });
  ThreadState state;
  const auto begin = SteadyClock::now();
  EXPECT_EQ(task().thread_get_state(thread.port(), &state), KERN_FAILURE);
  EXPECT_LT(SteadyClock::now() - begin, std::chrono::seconds(5));
}

TEST(Snapshot, WhoWaitsForSignalsDoesNotGetOurs) {
  std::atomic<int> received{-1};
  std::latch waiting{1};
  const int signal = snapshotSignal();
  TestThread thread([&](const auto&) {
    sigset_t ours;
    sigemptyset(&ours);
    sigaddset(&ours, signal);
    sigaddset(&ours, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &ours, nullptr);
    int got = 0;
    waiting.count_down();
    sigwait(&ours, &got);
    received = got;
  });
  waiting.wait();
  waitUntilBlocked(thread.port());
  for (int i = 0; i < 50; ++i) EXPECT_FALSE(stackOf(thread.port()).empty());
  syscall(SYS_tgkill, getpid(), thread.port(), SIGUSR2);
  while (received == -1) std::this_thread::yield();
  EXPECT_EQ(received, SIGUSR2);
}

TEST(Snapshot, ThreadsThatEndDuringTheCapture) {
  for (int i = 0; i < 300; ++i) {
    TestThread thread([](const auto& stop) { test::spin(stop); });
    std::thread capture([&] {
      ThreadState state;
      while (task().thread_get_state(thread.port(), &state) == KERN_SUCCESS &&
             walk(task(), state).size() < 200) {
      }
    });
    thread.stop();
    capture.join();
  }
}

TEST(Snapshot, AForkedChildCapturesItsOwnThreads) {
  ChainThread parents(test::spin);
  ASSERT_TRUE(holds(stackOfPatiently(parents.port()), parents.chain()));
  const pid_t child = fork();
  if (child == 0) {
    ThreadState state;
    const bool parentsGone = task().thread_get_state(parents.port(), &state) != KERN_SUCCESS;
    // Sanitizers cannot start threads in the child of a process with threads.
    if (test::kSanitized) _exit(parentsGone ? 0 : 1);
    auto* const own = new ChainThread(test::spin);
    _exit(parentsGone && holds(stackOfPatiently(own->port()), own->chain()) ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

TEST(Snapshot, KeptMemoryStaysSmall) {
  ChainThread thread([](const auto& stop) {
    // A deep stack: nearly all of what is copied at most.
    volatile char deep[480 * 1024];
    for (std::size_t i = 0; i < sizeof deep; i += 4096) deep[i] = 1;
    test::spin(stop);
  });
  const auto footprint = [] {
    TaskVmInfo info;
    EXPECT_EQ(task().task_info(&info), KERN_SUCCESS);
    return info.phys_footprint;
  };
  EXPECT_FALSE(stackOfPatiently(thread.port()).empty());
  const std::uint64_t before = footprint();
  for (int i = 0; i < 20; ++i) EXPECT_FALSE(stackOfPatiently(thread.port()).empty());
  EXPECT_LT(footprint(), before + (test::kSanitized ? 8 << 20 : 300 * 1024));
}

TEST(FrameRecords, AllReturnAddressesAreListedByAWalk) {
  FrameRecords records;
  CallChain chain;
  chain.programCounter = 1;
  for (std::size_t count : {std::size_t{0}, std::size_t{1}, kMaximumFrames}) {
    chain.count = count;
    for (std::size_t i = 0; i < count; ++i) chain.returnAddresses[i] = 0x1000 + i;
    ThreadState state;
    state.pc = 1;
    state.fp = layOut(chain, records);
    const auto listed = walk(task(), state);
    ASSERT_EQ(listed.size(), count + 1);
    EXPECT_EQ(listed.back(), count == 0 ? 1 : 0x1000 + count - 1);
  }
}

}  // namespace
}  // namespace qbv::linux_backend
