// Waits that a capture must not cut short.
#include <gtest/gtest.h>
#include <poll.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <memory>
#include <vector>

#include "tests/platform/snapshot_threads.h"
#include "vitalscope/platform/linux/call_restart.h"

namespace qbv::linux_backend {
namespace {

using namespace test;

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

}  // namespace
}  // namespace qbv::linux_backend
