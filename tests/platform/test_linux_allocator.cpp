// The interposed malloc family, in a process that is linked with the shared library.
#include <gtest/gtest.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/heap_events.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/thread_counts.h"

namespace qbv {
namespace {

using tests::HeapEvent, tests::HeapEvents;

std::uintptr_t word(const void* pointer) {
  return reinterpret_cast<std::uintptr_t>(pointer);
}

// The compiler knows these functions and may leave calls out.
void* (*volatile allocate)(std::size_t) = std::malloc;
void* (*volatile reallocate)(void*, std::size_t) = std::realloc;
void* (*volatile reallocateArray)(void*, std::size_t, std::size_t) = ::reallocarray;
void (*volatile release)(void*) = std::free;

class AllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(QBV_SANITIZED)
    GTEST_SKIP() << "the sanitizer brings its own allocator: nothing is interposed";
#endif
    ASSERT_TRUE(platform().allocator.mallocLoggerSeesHeap());
  }
};

TEST_F(AllocatorTest, AllocationsAndFreesAreToldWithTheirArguments) {
  HeapEvents events;
  void* const block = allocate(100);
  EXPECT_EQ(events.only(), (HeapEvent{10, 100, 0, word(block)}));
  release(block);
  EXPECT_EQ(events.only(), (HeapEvent{12, word(block), 0, 0}));
  void* const cleared = calloc(7, 9);
  EXPECT_EQ(events.only(), (HeapEvent{74, 63, 0, word(cleared)}));
  EXPECT_EQ(std::string(static_cast<char*>(cleared), 63), std::string(63, '\0'));
  release(cleared);
  events.only();
  release(nullptr);
  EXPECT_EQ(events.size(), 0U);
}

TEST_F(AllocatorTest, ReallocationsAreToldByWhatTheyDo) {
  HeapEvents events;
  void* const block = reallocate(nullptr, 24);
  EXPECT_EQ(events.only(), (HeapEvent{10, 24, 0, word(block)})) << "of nothing: an allocation";
  std::memcpy(block, "content", 8);
  void* const moved = reallocate(block, 1 << 20);
  EXPECT_EQ(events.only(), (HeapEvent{14, word(block), 1 << 20, word(moved)}));
  EXPECT_STREQ(static_cast<char*>(moved), "content");
  void* const same = reallocateArray(moved, 1 << 10, 512);
  EXPECT_EQ(events.only(), (HeapEvent{14, word(moved), 1 << 19, word(same)}));
  EXPECT_EQ(reallocate(same, 0), nullptr);
  EXPECT_EQ(events.only(), (HeapEvent{12, word(same), 0, 0})) << "to nothing: a free";
}

TEST_F(AllocatorTest, AlignedFunctionsAreToldAndAligned) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  HeapEvents events;
  const auto check = [&](void* block, std::size_t size, std::size_t alignment) {
    EXPECT_EQ(events.only(), (HeapEvent{10, size, 0, word(block)}));
    EXPECT_EQ(word(block) % alignment, 0U);
    release(block);
    events.only();
  };
  void* block = nullptr;
  EXPECT_EQ(posix_memalign(&block, 256, 40), 0);
  check(block, 40, 256);
  check(aligned_alloc(64, 128), 128, 64);
  check(memalign(512, 11), 11, 512);
  check(valloc(33), 33, page);
  check(pvalloc(33), 33, page);
}

TEST_F(AllocatorTest, WhatFailsIsNotTold) {
  constexpr std::size_t kTooMuch = static_cast<std::size_t>(-1) / 2;
  void* const kept = allocate(50);
  HeapEvents events;
  volatile std::size_t huge = kTooMuch;
  EXPECT_EQ(allocate(huge), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(calloc(huge, 16), nullptr) << "the product does not fit";
  EXPECT_EQ(reallocate(kept, huge), nullptr);
  errno = 0;
  EXPECT_EQ(reallocateArray(kept, huge, 16), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  void* block = kept;
  EXPECT_EQ(posix_memalign(&block, 24, 8), EINVAL);
  EXPECT_EQ(posix_memalign(&block, 4, 8), EINVAL);
  EXPECT_EQ(posix_memalign(&block, 0, 8), EINVAL);
  EXPECT_EQ(posix_memalign(&block, 16, huge), ENOMEM);
  EXPECT_EQ(block, kept);
  EXPECT_EQ(events.size(), 0U);
  release(kept);
}

TEST_F(AllocatorTest, FreeLeavesErrnoAlone) {
  std::vector<void*> blocks;
  for (const std::size_t size : {16, 4096, 1 << 22}) blocks.push_back(allocate(size));
  HeapEvents events;
  for (void* const block : blocks) {
    errno = EINTR;
    release(block);
    EXPECT_EQ(errno, EINTR);
  }
}

TEST_F(AllocatorTest, PrivateZonesAndTheOwnBacktraceAreNotHeap) {
  MallocZone* const zone = platform().allocator.malloc_create_zone(0, 0);
  void* frames[64];
  platform().task.backtrace(frames, 64);
  HeapEvents events;
  void* const small = zone->malloc(100);
  void* const large = zone->calloc(500'000, 8);
  zone->free(small);
  zone->free(large);
  EXPECT_GT(platform().task.backtrace(frames, 64), 3);
  EXPECT_EQ(events.size(), 0U);
}

// ---- Counts

void countEvent(std::uint32_t type, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                std::uint32_t) {
  addLiveBlocks(type == 12 ? -1 : type == 14 ? 0 : 1);
}

TEST_F(AllocatorTest, SmallBlocksMayBeCountedWithoutTelling) {
  void* const fromBefore = allocate(10);
  HeapEvents events;
  platform().allocator.countSmallBlocksFor(events.logger(), 1000);
  const std::int64_t before = liveBlocks();
  void* block = nullptr;
  void* const blocks[] = {allocate(999), calloc(3, 333), aligned_alloc(64, 128),
                          posix_memalign(&block, 64, 10) == 0 ? block : nullptr};
  EXPECT_EQ(liveBlocks(), before + 4);
  release(nullptr);
  volatile std::size_t huge = (static_cast<std::size_t>(-1) / 8) + 2;
  EXPECT_EQ(calloc(huge, 8), nullptr) << "the product is small, and does not fit";
  release(fromBefore);
  EXPECT_EQ(liveBlocks(), before + 3);
  EXPECT_EQ(events.size(), 0U);

  void* const large = allocate(1000);
  EXPECT_EQ(events.only(), (HeapEvent{10, 1000, 0, word(large)}));
  void* const moved = reallocate(large, 1 << 20);
  EXPECT_EQ(events.only(), (HeapEvent{14, word(large), 1 << 20, word(moved)})) << "always told";
  release(moved);
  for (void* const one : blocks) release(one);
  EXPECT_EQ(events.size(), 0U);
  EXPECT_EQ(liveBlocks(), before - 2) << "three, less four and the large one, which nobody counted";

  platform().allocator.countSmallBlocksFor(nullptr, 0);
  release(allocate(10));
  EXPECT_EQ(events.size(), 2U);
  platform().allocator.countSmallBlocksFor([](auto...) {}, 1000);
  release(allocate(10));
  EXPECT_EQ(events.size(), 4U) << "said of another logger";
  platform().allocator.countSmallBlocksFor(nullptr, 0);
}

// Counted by a logger, and by the allocator in its place.
class CountTest : public AllocatorTest, public ::testing::WithParamInterface<bool> {
 protected:
  void TearDown() override { ignore(); }
  static void count() {
    if (GetParam()) platform().allocator.countSmallBlocksFor(countEvent, static_cast<std::size_t>(-1));
    malloc_logger = countEvent;
  }
  static void ignore() {
    malloc_logger = nullptr;
    platform().allocator.countSmallBlocksFor(nullptr, 0);
  }
  static std::size_t slots() {
    std::size_t number = 0;
    visitThreadCounts(
        [](ThreadCounts&, void* sum) {
          ++*static_cast<std::size_t*>(sum);
          return true;
        },
        &number);
    return number;
  }
};

TEST_P(CountTest, NothingIsLostWhenThreadsStartAndEndAndFreeEachOthersBlocks) {
  constexpr int kThreads = 16;
  constexpr int kRounds = 20;
  constexpr std::size_t kBlocks = 500;
  count();
  std::vector<std::vector<void*>> handed(kThreads);
  const std::int64_t before = liveBlocks();
  for (int round = 0; round < kRounds; ++round) {
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int number = 0; number < kThreads; ++number) {
      threads.emplace_back([&, number] {
        auto& mine = handed[static_cast<std::size_t>(number)];
        for (void* const block : mine) release(block);
        mine.clear();
        for (std::size_t i = 0; i < kBlocks; ++i) mine.push_back(allocate(i));
      });
    }
    for (std::thread& thread : threads) thread.join();
    std::rotate(handed.begin(), handed.begin() + 1, handed.end());
  }
  ignore();
  // Besides the blocks: one vector's storage each, and what the C library keeps for a thread.
  const std::int64_t grown = liveBlocks() - before;
  EXPECT_GE(grown, static_cast<std::int64_t>(kThreads * kBlocks));
  EXPECT_LE(grown, static_cast<std::int64_t>(kThreads * kBlocks + 4 * kThreads));
  count();
  const std::int64_t full = liveBlocks();
  for (auto& blocks : handed)
    for (void* const block : blocks) release(block);
  EXPECT_EQ(liveBlocks(), full - static_cast<std::int64_t>(kThreads * kBlocks));
}

TEST_P(CountTest, SlotsOfEndedThreadsAreUsedAgain) {
  count();
  std::thread([] { release(allocate(1)); }).join();
  const std::size_t before = slots();
  for (int i = 0; i < 300; ++i) std::thread([] { release(allocate(1)); }).join();
  EXPECT_EQ(slots(), before);
}

pthread_key_t lateKey;
std::atomic<int> lateFrees{0};

// Comes back until the C library gives up, so it runs before and after the count's own slot is given back.
void freeLate(void* block) {
  release(block);
  ++lateFrees;
  pthread_setspecific(lateKey, allocate(8));
}

TEST_P(CountTest, DestructorsOfAThreadsKeysAreCounted) {
  ASSERT_EQ(pthread_key_create(&lateKey, freeLate), 0);
  count();
  std::atomic<std::int64_t> before{0};
  std::thread thread([&] {
    before = liveBlocks();
    pthread_setspecific(lateKey, allocate(8));
  });
  thread.join();
  ignore();
  EXPECT_GE(lateFrees, 2);
  // One block is left over; the thread's own state was freed by the joining thread.
  EXPECT_LE(liveBlocks(), before + 1);
  EXPECT_GE(liveBlocks(), before - 2);
}

TEST_P(CountTest, AForkedChildGoesOnFromItsParentsCount) {
  count();
  std::vector<void*> blocks;
  blocks.reserve(100);
  const std::int64_t before = liveBlocks();
  std::thread([&] {
    for (int i = 0; i < 100; ++i) blocks.push_back(allocate(10));
  }).join();
  const std::int64_t full = liveBlocks();
  EXPECT_GE(full, before + 100);
  const pid_t child = fork();
  if (child == 0) {
    const bool same = liveBlocks() == full;
    for (void* const block : blocks) release(block);
    _exit(same && liveBlocks() == full - 100 ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(liveBlocks(), full) << "the parent's count is its own";
}

TEST_P(CountTest, ALoggerMayComeAndGoWhileThreadsAllocate) {
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number)
    threads.emplace_back([&] {
      while (!stop)
        for (std::size_t size = 1; size < 4000; size += 37) release(reallocate(allocate(size), size * 2));
    });
  for (int i = 0; i < 2000; ++i) i % 2 == 0 ? count() : ignore();
  stop = true;
  for (std::thread& thread : threads) thread.join();
}

INSTANTIATE_TEST_SUITE_P(By, CountTest, ::testing::Bool(), [](const auto& test) {
  return std::string(test.param ? "TheAllocator" : "TheLogger");
});

}  // namespace
}  // namespace qbv
