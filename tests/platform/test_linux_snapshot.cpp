// Stacks of other threads, whatever they are doing.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/auxv.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>

#include "tests/platform/test_threads.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/blocked_thread.h"
#include "vitalscope/platform/linux/call_restart.h"
#include "vitalscope/platform/linux/frame_records.h"
#include "vitalscope/platform/linux/signal_action.h"
#include "vitalscope/platform/linux/snapshot_signal.h"
#include "vitalscope/platform/linux/stack_snapshot.h"

namespace qbv::linux_backend {
namespace {

using test::KnownChain;
using test::TestThread;
using test::walk;
using Clock = std::chrono::steady_clock;

void waitUntilBlocked(ThreadPort thread) {
  BlockedThread watched(thread);
  while (watched.look().state != SystemCallLine::State::blocked) std::this_thread::yield();
}

std::vector<std::uint64_t> stackOf(ThreadPort thread) {
  ThreadState state;
  if (task().thread_get_state(thread, &state) != KERN_SUCCESS) return {};
  EXPECT_NE(state.fp, 0u);
  EXPECT_EQ(state.lr, 0u);
  EXPECT_EQ(task().thread_suspend(thread), KERN_SUCCESS);
  auto addresses = walk(task(), state);
  EXPECT_EQ(task().thread_resume(thread), KERN_SUCCESS);
  return addresses;
}

// A busy machine may keep a running thread from answering in time; it gets more chances.
std::vector<std::uint64_t> stackOfPatiently(ThreadPort thread) {
  std::vector<std::uint64_t> stack;
  for (int attempt = 0; stack.empty() && attempt < 20; ++attempt) stack = stackOf(thread);
  return stack;
}

bool holds(const std::vector<std::uint64_t>& stack, const KnownChain& chain) {
  const auto& expected = chain.returnAddresses;
  return std::search(stack.begin(), stack.end(), expected.begin(), expected.end()) != stack.end();
}

// A thread that is three known calls deep and in action there.
class ChainThread {
 public:
  explicit ChainThread(std::function<void(const std::atomic<bool>& stop)> action)
      : thread_([this, action = std::move(action)](const std::atomic<bool>& stop) {
          chain_.action = [&] {
            inside_.count_down();
            action(stop);
          };
          test::knownOuter(chain_);
        }) {
    inside_.wait();
  }
  ThreadPort port() const { return thread_.port(); }
  void stop() { thread_.stop(); }
  const KnownChain& chain() const { return chain_; }

 private:
  KnownChain chain_;
  std::latch inside_{1};
  TestThread thread_;
};

void blockAllSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

// A condition to wait for, and who waits.
struct Gate {
  std::mutex mutex;
  std::condition_variable condition;
  bool open = false;

  void wait() {
    std::unique_lock lock(mutex);
    condition.wait(lock, [&] { return open; });
  }
  void release() {
    const std::lock_guard lock(mutex);
    open = true;
    condition.notify_all();
  }
};

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
  const auto begin = Clock::now();
  EXPECT_EQ(task().thread_get_state(thread.port(), &state), KERN_FAILURE);
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5));
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

TEST(Snapshot, NobodyIsInterrupted) {
  std::atomic<int> interrupted{0};
  std::atomic<int> waits{0};
  const auto waiter = [&](auto wait) {
    return std::make_unique<TestThread>([&, wait](const std::atomic<bool>& stop) {
      while (!stop) {
        if (wait() == -1 && errno == EINTR) ++interrupted;
        ++waits;
      }
    });
  };
  int sockets[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  const timeval timeout{0, 20'000};
  setsockopt(sockets[0], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  const int poller = epoll_create1(EPOLL_CLOEXEC);
  sem_t never;
  sem_init(&never, 0, 0);
  std::vector<std::unique_ptr<TestThread>> threads;
  threads.push_back(waiter([] { return poll(nullptr, 0, 20); }));
  threads.push_back(waiter([&] {
    epoll_event event;
    return epoll_wait(poller, &event, 1, 20);
  }));
  threads.push_back(waiter([] {
    const timespec time{0, 20'000'000};
    return nanosleep(&time, nullptr);
  }));
  threads.push_back(waiter([&] {
    timespec time{};
    clock_gettime(CLOCK_REALTIME, &time);
    time.tv_nsec += 20'000'000;
    if (time.tv_nsec >= 1'000'000'000) ++time.tv_sec, time.tv_nsec -= 1'000'000'000;
    return sem_timedwait(&never, &time);
  }));
  threads.push_back(waiter([&] {
    char byte;
    return static_cast<int>(recv(sockets[0], &byte, 1, 0));
  }));
  int captured = 0;
  for (int i = 0; i < 1000; ++i) {
    for (const auto& thread : threads) captured += stackOf(thread->port()).empty() ? 0 : 1;
  }
  threads.clear();
  EXPECT_EQ(captured, 5000);
  EXPECT_GT(waits, 5);
  EXPECT_EQ(interrupted, 0) << "of " << waits;
  close(sockets[0]);
  close(sockets[1]);
  close(poller);
}

TEST(Snapshot, FourCapturesAtOnceNeitherStickNorMix) {
  Gate gate;
  std::vector<std::unique_ptr<ChainThread>> targets;
  for (int i = 0; i < 3; ++i) targets.push_back(std::make_unique<ChainThread>(test::spin));
  for (int i = 0; i < 3; ++i) {
    targets.push_back(std::make_unique<ChainThread>([&](const auto&) { gate.wait(); }));
  }
  for (std::size_t i = 3; i < targets.size(); ++i) waitUntilBlocked(targets[i]->port());
  std::atomic<int> good{0}, failed{0};
  {
    std::vector<ThreadPort> capturerPorts(4);
    std::latch ready{5};
    std::vector<std::unique_ptr<TestThread>> capturers;
    for (std::size_t c = 0; c < 4; ++c) {
      capturers.push_back(std::make_unique<TestThread>([&, c](const std::atomic<bool>& stop) {
        ready.arrive_and_wait();
        for (std::size_t turn = c; !stop; ++turn) {
          const ChainThread& target = *targets[turn % targets.size()];
          const auto stack = stackOf(target.port());
          if (stack.empty()) {
            ++failed;
          } else {
            EXPECT_TRUE(holds(stack, target.chain())) << stack.size() << " frames";
            ++good;
          }
          // And one another.
          const ThreadPort other = capturerPorts[(c + 1 + turn % 3) % 4];
          stackOf(other);
        }
      }));
      capturerPorts[c] = capturers.back()->port();
    }
    ready.arrive_and_wait();
    const auto end = Clock::now() + std::chrono::seconds(test::kSanitized ? 3 : 10);
    while (Clock::now() < end && !testing::Test::HasFailure()) poll(nullptr, 0, 20);
  }
  gate.release();
  EXPECT_GT(good, 100);
  EXPECT_LT(failed, good);
}

TEST(Snapshot, ABatchOfHundredsOfThreads) {
  constexpr int kWaiting = 180;
  constexpr int kSpinning = test::kSanitized ? 8 : 70;  // more than there are slots, where time allows
  Gate gate;
  std::vector<std::unique_ptr<ChainThread>> threads;
  std::latch spinNow{1};
  for (int i = 0; i < kWaiting; ++i) {
    threads.push_back(std::make_unique<ChainThread>([&](const auto&) { gate.wait(); }));
  }
  for (int i = 0; i < kSpinning; ++i) {
    threads.push_back(std::make_unique<ChainThread>([&](const auto& stop) {
      spinNow.wait();
      test::spin(stop);
    }));
  }
  spinNow.count_down();
  std::vector<ThreadPort> ports{task().mach_thread_self()};
  for (const auto& thread : threads) ports.push_back(thread->port());
  int found = 0;
  for (int attempt = 0; found < kWaiting + kSpinning && attempt < 10; ++attempt) {
    const auto begin = Clock::now();
    task().willCaptureThreads(ports.data(), static_cast<std::uint32_t>(ports.size()));
    RecordProperty("milliseconds", static_cast<int>((Clock::now() - begin) / std::chrono::milliseconds(1)));
    found = 0;
    for (const auto& thread : threads) found += holds(stackOf(thread->port()), thread->chain()) ? 1 : 0;
    task().didCaptureThreads();
  }
  gate.release();
  for (const auto& thread : threads) thread->stop();
  EXPECT_EQ(found, kWaiting + kSpinning);
}

TEST(Snapshot, ABatchAnswersFromOneInstant) {
  Gate gate;
  ChainThread thread([&](const auto&) { gate.wait(); });
  waitUntilBlocked(thread.port());
  const ThreadPort port = thread.port();
  task().willCaptureThreads(&port, 1);
  gate.release();
  ThreadBasicInfo info;
  while (task().thread_info(port, &info) == KERN_SUCCESS) std::this_thread::yield();
  EXPECT_TRUE(holds(stackOf(port), thread.chain())) << "it has ended since, and is in the batch";
  task().didCaptureThreads();
  EXPECT_TRUE(stackOf(port).empty());
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

// The kernel's lines of waits, and whether our signal may strike them.
TEST(CallRestart, OnlyWaitsThatTheKernelTakesUpAgainMayBeSignalled) {
  int pipes[2], sockets[2];
  ASSERT_EQ(pipe(pipes), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  const auto survives = [](long number, long first = 0, long second = 0, long fourth = 0) {
    char text[256];
    std::snprintf(text, sizeof text, "%ld 0x%lx 0x%lx 0x0 0x%lx 0x0 0x0 0x7ffe0000 0x400000\n", number, first,
                  second, fourth);
    const SystemCallLine line = parseSystemCallLine(text);
    EXPECT_EQ(line.state, SystemCallLine::State::blocked);
    EXPECT_EQ(line.stackPointer, 0x7ffe0000u);
    return waitSurvivesSignal(line);
  };
  constexpr long kPrivateWait = 128, kBitsetWait = 9, kRealTime = 256;
  EXPECT_TRUE(survives(SYS_futex, 0x1000, kPrivateWait, 0));
  EXPECT_TRUE(survives(SYS_futex, 0x1000, kBitsetWait | kPrivateWait | kRealTime, 0));
  EXPECT_FALSE(survives(SYS_futex, 0x1000, kPrivateWait, 0x7ffe1000));
  EXPECT_FALSE(survives(SYS_futex, 0x1000, kBitsetWait | kPrivateWait, 0x7ffe1000));
  EXPECT_TRUE(survives(SYS_read, pipes[0]));
  EXPECT_FALSE(survives(SYS_read, sockets[0])) << "it may have a time limit";
  EXPECT_TRUE(survives(SYS_wait4, -1));
  for (const long number :
       {SYS_ppoll,           SYS_pselect6,       SYS_epoll_pwait,    SYS_epoll_pwait2,    SYS_nanosleep,
        SYS_clock_nanosleep, SYS_recvfrom,       SYS_recvmsg,        SYS_recvmmsg,        SYS_sendto,
        SYS_sendmsg,         SYS_accept,         SYS_accept4,        SYS_connect,         SYS_msgrcv,
        SYS_msgsnd,          SYS_semop,          SYS_semtimedop,     SYS_rt_sigtimedwait, SYS_rt_sigsuspend,
        SYS_io_getevents,    SYS_io_uring_enter, SYS_restart_syscall}) {
    EXPECT_FALSE(survives(number)) << number;
  }
  EXPECT_TRUE(waitSurvivesSignal(parseSystemCallLine("-1 0x7ffe0000 0x400000")));
  for (const int end : {pipes[0], pipes[1], sockets[0], sockets[1]}) close(end);
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
