// Threads, CPU use, footprint, memory reads and start time of a real process.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <memory>

#include "tests/platform/test_threads.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/blocked_thread.h"
#include "vitalscope/platform/linux/cpu_usage.h"
#include "vitalscope/platform/linux/proc_text.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/thread_list.h"

namespace qbv::linux_backend {
namespace {

using test::TestThread;

constexpr std::uint64_t kSecond = 1'000'000'000;

std::vector<ThreadPort> threads() {
  ThreadPort* list = nullptr;
  std::uint32_t count = 0;
  EXPECT_EQ(task().task_threads(&list, &count), KERN_SUCCESS);
  std::vector<ThreadPort> ports(list, list + count);
  EXPECT_EQ(task().vm_deallocate(list, count * sizeof(ThreadPort)), KERN_SUCCESS);
  return ports;
}

std::int32_t usage(ThreadPort thread) {
  ThreadBasicInfo info;
  EXPECT_EQ(task().thread_info(thread, &info), KERN_SUCCESS);
  EXPECT_EQ(info.flags, 0);
  return info.cpu_usage;
}

// Runs a check in a forked child; true when it held there.
bool holdsInChild(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0) _exit(check() ? 0 : 1);
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST(ThreadList, HasEveryThreadAndTheCaller) {
  const std::size_t before = threads().size();
  std::vector<std::unique_ptr<TestThread>> many;
  std::latch end{1};
  for (int i = 0; i < 200; ++i) {
    many.push_back(std::make_unique<TestThread>([&](const auto&) { end.wait(); }));
  }
  const auto listed = threads();
  EXPECT_GE(listed.size(), before + many.size());
  EXPECT_LE(listed.size(), before + many.size() + (test::kSanitized ? 1 : 0));
  EXPECT_EQ(listed.front(), task().mainThread());
  for (const auto& thread : many) EXPECT_THAT(listed, testing::Contains(thread->port()));
  EXPECT_THAT(listed, testing::Contains(task().mach_thread_self()));
  end.count_down();
}

TEST(ThreadList, NoMoreIsMappedThanIsGivenBack) {
  ThreadPort* list = nullptr;
  std::uint32_t count = 0;
  ASSERT_EQ(task().task_threads(&list, &count), KERN_SUCCESS);
  ASSERT_EQ(task().vm_deallocate(list, count * sizeof(ThreadPort)), KERN_SUCCESS);
  unsigned char resident = 0;
  EXPECT_EQ(mincore(list, 1, &resident), -1);
  EXPECT_EQ(task().vm_deallocate(nullptr, 0), KERN_SUCCESS);
}

TEST(ThreadIdentity, FollowsThreadAndFork) {
  EXPECT_EQ(task().mach_thread_self(), static_cast<ThreadPort>(gettid()));
  EXPECT_EQ(task().mainThread(), static_cast<ThreadPort>(getpid()));
  TestThread other([](const auto&) {
    EXPECT_EQ(task().mach_thread_self(), static_cast<ThreadPort>(gettid()));
    EXPECT_EQ(task().mainThread(), static_cast<ThreadPort>(getpid()));
    EXPECT_TRUE(holdsInChild([] {
      return task().mach_thread_self() == static_cast<ThreadPort>(getpid()) &&
             task().mainThread() == static_cast<ThreadPort>(getpid());
    }));
  });
}

TEST(CpuUsage, BusyThreadsCountFullyAndIdleOnesNot) {
  TestThread busy1(test::spin);
  TestThread busy2(test::spin);
  std::latch end{1};
  TestThread idle([&](const auto&) { end.wait(); });
  // What the two could use at most on this machine, which may be busy with other things.
  const auto used = [&] { return *threadCpuNanoseconds(busy1.port()) + *threadCpuNanoseconds(busy2.port()); };
  const auto begin = std::chrono::steady_clock::now();
  const std::uint64_t usedBefore = used();
  for (int i = 0; i < 30; ++i) {
    usage(busy1.port());
    usage(busy2.port());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  const double load = static_cast<double>(used() - usedBefore) / 1e9 / elapsed;
  const double shown = (usage(busy1.port()) + usage(busy2.port())) / 1000.0;
  EXPECT_NEAR(shown, load, 0.6);
  EXPECT_LE(shown, 2.0);
  EXPECT_GT(shown, 0);
  EXPECT_EQ(usage(idle.port()), 0);
  end.count_down();
}

TEST(CpuUsage, FailsForThreadsThatAreNotThere) {
  ThreadPort port = 0;
  {
    TestThread brief([](const auto&) {});
    port = brief.port();
  }
  ThreadBasicInfo info;
  // A joined thread may be seen for an instant longer.
  while (task().thread_info(port, &info) == KERN_SUCCESS) std::this_thread::yield();
  EXPECT_NE(task().thread_info(port, &info), KERN_SUCCESS);
  EXPECT_NE(task().thread_info(0, &info), KERN_SUCCESS);
  EXPECT_NE(task().thread_info(1, &info), KERN_SUCCESS);
}

TEST(CpuUsage, ManyAskersAndThreadsThatComeAndGo) {
  std::atomic<int> answers{0};
  const auto ask = [&](const std::atomic<bool>& stop) {
    while (!stop) {
      for (const ThreadPort port : threads()) {
        ThreadBasicInfo info;
        if (task().thread_info(port, &info) != KERN_SUCCESS) continue;
        EXPECT_GE(info.cpu_usage, 0);
        EXPECT_LE(info.cpu_usage, 1000);
        ++answers;
      }
    }
  };
  TestThread first(ask), second(ask), third(ask);
  for (int i = 0; i < 300; ++i) TestThread brief([](const auto&) {});
  EXPECT_GT(answers, 0);
}

TEST(DecayedLoad, DoesNotDependOnHowOftenItIsAsked) {
  DecayedLoad often = firstSight(kSecond, 0, 100, false);
  DecayedLoad seldom = often;
  for (std::uint64_t i = 1; i <= 400; ++i) often.update(kSecond + i * kSecond / 100, i * kSecond / 200);
  seldom.update(5 * kSecond, 2 * kSecond);
  EXPECT_EQ(often.usage(), 500);
  EXPECT_EQ(seldom.usage(), 500);
  // Half of it is gone after a second of rest, however it is watched.
  often.update(5 * kSecond + kSecond / 2, 2 * kSecond);
  often.update(6 * kSecond, 2 * kSecond);
  seldom.update(6 * kSecond, 2 * kSecond);
  EXPECT_NEAR(often.usage(), 243, 10);
  EXPECT_NEAR(seldom.usage(), 243, 10);
  const std::int32_t before = seldom.usage();
  seldom.update(5 * kSecond, 3 * kSecond);
  EXPECT_EQ(seldom.usage(), before) << "a reading from before the last one";
}

TEST(DecayedLoad, FirstSightOfAThread) {
  EXPECT_EQ(firstSight(kSecond, 50 * kSecond, 3600, false).usage(), 0);
  EXPECT_EQ(firstSight(kSecond, 3600 * kSecond, 3600, true).usage(), 1000);
  EXPECT_LT(firstSight(kSecond, 3 * kSecond, 3600, true).usage(), 10) << "has just been woken";
  EXPECT_EQ(firstSight(kSecond, kSecond, 1.0, true).usage(), 500);
  EXPECT_LT(firstSight(kSecond, kSecond / 100, 0.01, true).usage(), 10);
  DecayedLoad running = firstSight(kSecond, 3600 * kSecond, 3600, true);
  running.update(2 * kSecond, 3600 * kSecond + kSecond / 4);
  EXPECT_EQ(running.usage(), 250) << "what was watched outweighs the first glance";
}

TEST(Footprint, FollowsTouchedMemory) {
  constexpr std::size_t kSize = 64 << 20;
  TaskVmInfo before, touched, released;
  ASSERT_EQ(task().task_info(&before), KERN_SUCCESS);
  void* const block = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(block, MAP_FAILED);
  std::memset(block, 1, kSize);
  ASSERT_EQ(task().task_info(&touched), KERN_SUCCESS);
  munmap(block, kSize);
  ASSERT_EQ(task().task_info(&released), KERN_SUCCESS);
  const auto grown = static_cast<double>(touched.phys_footprint - before.phys_footprint);
  const auto shrunk = static_cast<double>(touched.phys_footprint - released.phys_footprint);
  EXPECT_GT(grown, kSize - (4 << 20));
  EXPECT_GT(shrunk, kSize - (4 << 20));
  if (test::kSanitized) return;
  EXPECT_LT(grown, kSize + (4 << 20));
  EXPECT_LT(shrunk, kSize + (4 << 20));
}

TEST(Footprint, AChildReadsItsOwn) {
  constexpr std::size_t kSize = 64 << 20;
  TaskVmInfo parents;
  ASSERT_EQ(task().task_info(&parents), KERN_SUCCESS);
  EXPECT_TRUE(holdsInChild([&] {
    void* const block = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::memset(block, 1, kSize);
    TaskVmInfo own;
    return task().task_info(&own) == KERN_SUCCESS && own.phys_footprint > parents.phys_footprint + kSize / 2;
  }));
}

TEST(Footprint, SurvivesAHostThatClosesEverything) {
  TaskVmInfo info;
  ASSERT_EQ(task().task_info(&info), KERN_SUCCESS);
  EXPECT_TRUE(holdsInChild([] {
    TaskVmInfo own;
    if (task().task_info(&own) != KERN_SUCCESS) return false;
    for (int descriptor = 3; descriptor < 1024; ++descriptor) close(descriptor);
    const int other = open("/dev/zero", O_RDONLY);
    if (fcntl(other, F_DUPFD, 960) < 0) return false;
    own = {};
    return task().task_info(&own) == KERN_SUCCESS && own.phys_footprint > 0;
  }));
}

TEST(SafeRead, StopsAtThePageThatCannotBeRead) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  auto* const block =
      static_cast<char*>(mmap(nullptr, 3 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(block, MAP_FAILED);
  std::memset(block, 7, 3 * page);
  mprotect(block + 2 * page, page, PROT_NONE);
  std::vector<char> to(3 * page);
  const auto start = reinterpret_cast<std::uint64_t>(block + 100);
  std::size_t copied = 0;
  EXPECT_EQ(task().vm_read_overwrite(start, 2 * page - 100, to.data(), &copied), KERN_SUCCESS);
  EXPECT_EQ(copied, 2 * page - 100);
  EXPECT_EQ(to[copied - 1], 7);
  EXPECT_EQ(task().vm_read_overwrite(start, 3 * page - 100, to.data(), &copied), KERN_INVALID_ADDRESS);
  EXPECT_EQ(copied, 2 * page - 100);
  EXPECT_EQ(task().vm_read_overwrite(8, 8, to.data(), &copied), KERN_INVALID_ADDRESS);
  EXPECT_EQ(copied, 0u);
  EXPECT_EQ(task().vm_read_overwrite(start, 0, to.data(), nullptr), KERN_SUCCESS);

  std::vector<char> piped(3 * page);
  EXPECT_EQ(readThroughPipe(start, 3 * page - 100, piped.data()), 2 * page - 100);
  EXPECT_EQ(std::memcmp(piped.data(), block + 100, 2 * page - 100), 0);
  EXPECT_EQ(readThroughPipe(8, 8, piped.data()), 0u);
  munmap(block, 3 * page);
}

TEST(ProcessStart, IsJustBeforeTheTestBegan) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  const double nowMilliseconds =
      static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
  const auto start = task().processStartTimeMilliseconds();
  ASSERT_TRUE(start);
  EXPECT_LE(*start, nowMilliseconds);
  EXPECT_GT(*start, nowMilliseconds - 60'000);
  EXPECT_TRUE(holdsInChild([&] {
    const auto childs = task().processStartTimeMilliseconds();
    return childs && *childs >= *start - 20 && *childs >= nowMilliseconds - 20;
  }));
}

TEST(ProcText, Parsers) {
  const std::string status =
      "Name:\tRssAnon: 9\nState:\tS (sleeping)\nVmPTE:\t      60 kB\nVmSwap:\t       4 kB\nVmRSS:\t 500 kB\n"
      "RssAnon:\t     400 kB\nSigBlk:\t8000000000000001\n";
  EXPECT_EQ(footprintOfStatus(status), (400u + 60 + 4) * 1024);
  EXPECT_EQ(footprintOfStatus("VmRSS:\t 500 kB\n"), 500u * 1024);
  EXPECT_FALSE(footprintOfStatus("Name:\tinit\n"));
  EXPECT_EQ(stateOfStatus(status), 'S');
  EXPECT_EQ(statusBlocksSignal(status, 64), true);
  EXPECT_EQ(statusBlocksSignal(status, 1), true);
  EXPECT_EQ(statusBlocksSignal(status, 63), false);
  const auto stat = parseStat("12 (a) R 1) R 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 777 20");
  ASSERT_TRUE(stat);
  EXPECT_EQ(stat->state, 'R');
  EXPECT_EQ(stat->startTicks, 777u);
  EXPECT_FALSE(parseStat("12 (short) S 1 2"));

  const auto blocked = parseSystemCallLine("7 0x1 0x2 0x3 0x4 0x5 0x6 0x7ffe10 0x7f20\n");
  EXPECT_EQ(blocked.state, SystemCallLine::State::blocked);
  EXPECT_EQ(blocked.number, 7);
  EXPECT_EQ(blocked.stackPointer, 0x7ffe10u);
  EXPECT_EQ(blocked.programCounter, 0x7f20u);
  EXPECT_EQ(parseSystemCallLine("-1 0x7ffe10 0x7f20\n").number, -1);
  EXPECT_EQ(parseSystemCallLine("running\n").state, SystemCallLine::State::running);
  for (const char* const text : {"", "\n", "0 0x0 0x0", "x 0x1 0x2", "7 1 2", "-1 0x7ffe10 0x7fzz"}) {
    EXPECT_EQ(parseSystemCallLine(text).state, SystemCallLine::State::unknown) << text;
  }
}

}  // namespace
}  // namespace qbv::linux_backend
