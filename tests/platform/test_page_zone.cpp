#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "vitalscope/platform/linux/page_zone.h"
#include "vitalscope/platform/platform.h"

namespace qbv::linux_backend {
namespace {

bool holds(const void* block, std::size_t size, int byte) {
  const auto* const bytes = static_cast<const unsigned char*>(block);
  return std::all_of(bytes, bytes + size, [byte](unsigned char one) { return one == byte; });
}

TEST(PageZone, BlocksOfEverySizeAreAlignedAndApart) {
  PageZone* const zone = PageZone::create();
  std::vector<std::pair<unsigned char*, std::size_t>> blocks;
  for (std::size_t size = 0; size < 40'000; size += size < 600 ? 1 : 511) {
    auto* const block = static_cast<unsigned char*>(zone->malloc(size));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0U);
    std::memset(block, static_cast<int>(size % 251), size);
    blocks.emplace_back(block, size);
  }
  for (const auto& [block, size] : blocks) EXPECT_TRUE(holds(block, size, static_cast<int>(size % 251)));
  for (const auto& [block, size] : blocks) zone->free(block);
  zone->free(nullptr);
}

TEST(PageZone, FreedBlocksAreUsedAgainAndClearedBlocksAreClear) {
  PageZone* const zone = PageZone::create();
  void* const first = zone->malloc(48);
  std::memset(first, 0xff, 48);
  zone->free(first);
  void* const second = zone->calloc(6, 8);
  EXPECT_EQ(second, first);
  EXPECT_TRUE(holds(second, 48, 0));
  EXPECT_EQ(zone->calloc(static_cast<std::size_t>(-1) / 8, 16), nullptr);
}

TEST(PageZone, UntouchedPagesCostNothing) {
  PageZone* const zone = PageZone::create();
  Task& task = platform().task;
  TaskVmInfo before;
  TaskVmInfo after;
  ASSERT_EQ(task.task_info(&before), KERN_SUCCESS);
  auto* const table = static_cast<std::uint64_t*>(zone->calloc(std::size_t{1} << 25, 8));  // 256 MB
  ASSERT_NE(table, nullptr);
  EXPECT_EQ(table[(std::size_t{1} << 25) - 1], 0U);
  ASSERT_EQ(task.task_info(&after), KERN_SUCCESS);
  EXPECT_LT(after.phys_footprint, before.phys_footprint + (std::uint64_t{16} << 20));
  zone->free(table);
}

TEST(PageZone, MoreThanThereIsGivesNullAndLeavesErrnoAlone) {
  PageZone* const zone = PageZone::create();
  errno = EINTR;
  EXPECT_EQ(zone->malloc(static_cast<std::size_t>(-1)), nullptr);
  EXPECT_EQ(zone->malloc(std::size_t{1} << 50), nullptr);
  EXPECT_EQ(errno, EINTR);
}

TEST(PageZone, ThreadsShareIt) {
  PageZone* const zone = PageZone::create();
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < 4; ++number) {
    threads.emplace_back([zone, number] {
      std::minstd_rand random(number + 1);
      std::vector<std::pair<void*, std::size_t>> mine;
      for (int step = 0; step < 20'000; ++step) {
        if (mine.size() < 50) {
          const std::size_t size = random() % (step % 100 == 0 ? 100'000 : 600) + 1;
          mine.emplace_back(zone->malloc(size), size);
          std::memset(mine.back().first, static_cast<int>(number), size);
        } else {
          std::swap(mine[random() % mine.size()], mine.back());
          ASSERT_TRUE(holds(mine.back().first, mine.back().second, static_cast<int>(number)));
          zone->free(mine.back().first);
          mine.pop_back();
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace qbv::linux_backend
