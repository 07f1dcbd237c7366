// The signal that a running thread gets: which one, whose, and what its handler costs.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <vector>

#include "tests/platform/snapshot_threads.h"
#include "vitalscope/platform/linux/signal_action.h"
#include "vitalscope/platform/linux/snapshot_signal.h"
#include "vitalscope/platform/linux/stack_snapshot.h"

namespace qbv::linux_backend {
namespace {

using namespace test;

TEST(SnapshotSignal, IsChosenLateAndGivesWayToTheHost) {
  SignalAction action;
  ASSERT_TRUE(readSignalAction(SIGRTMAX, action));
  EXPECT_EQ(action.handler, nullptr) << "nothing is installed before the first capture";
  ASSERT_TRUE(writeSignalAction(SIGRTMAX, SignalAction{[](int, siginfo_t*, void*) {}, SA_SIGINFO}));
  EXPECT_EQ(snapshotSignal(), SIGRTMAX - 1);
  ASSERT_TRUE(writeSignalAction(SIGRTMAX - 1, SignalAction{[](int, siginfo_t*, void*) {}, SA_SIGINFO}));
  EXPECT_EQ(snapshotSignal(), SIGRTMAX - 2);
  ChainThread thread(test::spin);
  EXPECT_TRUE(holds(stackOfPatiently(thread.port()), thread.chain()));
}

std::atomic<int> hostSignals{0};

TEST(SnapshotSignal, PassesOnWhatIsNotOurs) {
  for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal) {
    ASSERT_TRUE(
        writeSignalAction(signal, SignalAction{[](int, siginfo_t*, void*) { ++hostSignals; }, SA_SIGINFO}));
  }
  const int signal = snapshotSignal();
  ASSERT_NE(signal, 0);
  errno = 77;
  raise(signal);
  EXPECT_EQ(hostSignals, 1);
  // One that looks like ours, but names no slot.
  siginfo_t forged{};
  forged.si_code = SI_QUEUE;
  forged.si_pid = getpid();
  forged.si_value.sival_ptr = reinterpret_cast<char*>(snapshotSlots()) + 8;
  syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signal, &forged);
  EXPECT_EQ(hostSignals, 2);
  // A slot that nobody asked this thread for stays as it is.
  forged.si_value.sival_ptr = snapshotSlots();
  syscall(SYS_rt_tgsigqueueinfo, getpid(), gettid(), signal, &forged);
  EXPECT_EQ(hostSignals, 2);
  EXPECT_EQ(snapshotSlots()->word, 0u);
  EXPECT_EQ(errno, 77);
}

TEST(SnapshotSignal, ALateAnswerIsHarmless) {
  std::atomic<bool> open{false};
  ChainThread thread([&](const auto& stop) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    while (!open) {
    }
    pthread_sigmask(SIG_UNBLOCK, &all, nullptr);
    test::spin(stop);
  });
  StackSnapshot snapshot;
  // A few signals wait for the thread; each request is taken back.
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(snapshot.request(thread.port()), StackSnapshot::Request::sent);
    EXPECT_FALSE(snapshot.await(monotonicNow() + 1'000'000));
  }
  open = true;
  for (int i = 0; i < 50; ++i) EXPECT_TRUE(holds(stackOfPatiently(thread.port()), thread.chain()));
  for (std::size_t i = 0; i < kSlotCount; ++i) EXPECT_EQ(snapshotSlots()[i].word, 0u);
}

// How much of a painted alternate stack the kernel's frame and the handler wrote to.
TEST(SnapshotSignal, TheHandlerNeedsLittleStack) {
  constexpr std::size_t kSize = 256 * 1024;
  std::vector<unsigned char> stack(kSize, 0xA5);
  ChainThread thread([&](const auto& stop) {
    const stack_t alternate{stack.data(), 0, kSize};
    sigaltstack(&alternate, nullptr);
    test::spin(stop);
    const stack_t none{nullptr, SS_DISABLE, 0};
    sigaltstack(&none, nullptr);
  });
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(holds(stackOfPatiently(thread.port()), thread.chain()));
  const auto first =
      std::find_if(stack.begin(), stack.end(), [](unsigned char byte) { return byte != 0xA5; });
  const auto written = static_cast<std::size_t>(stack.end() - first);
  const std::size_t frame = getauxval(AT_MINSIGSTKSZ);
  RecordProperty("stackBytes", static_cast<int>(written));
  EXPECT_GT(written, 0u) << "it runs on the alternate stack";
  EXPECT_LT(written, (frame > 0 ? frame : 4096) + 1024);
}

}  // namespace
}  // namespace qbv::linux_backend
