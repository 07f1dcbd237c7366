#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <vector>

#include "vitalscope/platform/linux/own_region.h"
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

TEST(PageZone, BlocksOfAllSizesComeAndGo) {
  PageZone* const zone = PageZone::create();
  std::minstd_rand random(1);
  std::vector<std::pair<void*, std::size_t>> blocks;
  for (int step = 0; step < 50'000; ++step) {
    if (blocks.size() < 50) {
      const std::size_t size = random() % (step % 100 == 0 ? 100'000 : 600) + 1;
      blocks.emplace_back(zone->malloc(size), size);
      std::memset(blocks.back().first, static_cast<int>(size % 251), size);
    } else {
      std::swap(blocks[random() % blocks.size()], blocks.back());
      const auto [block, size] = blocks.back();
      ASSERT_TRUE(holds(block, size, static_cast<int>(size % 251)));
      zone->free(block);
      blocks.pop_back();
    }
  }
}

// Whoever looks for lost blocks from outside passes over the addresses that stand here.
TEST(PageZone, BlocksLieInRegionsThatSayWhoseTheyAre) {
  PageZone* const zone = PageZone::create();
  for (const std::size_t size : {16U, 600U, 16'384U, 4'000'000U}) {
    const auto block = reinterpret_cast<std::uintptr_t>(zone->malloc(size));
    const std::uintptr_t region = block & ~std::uintptr_t{0xffff};
    OwnRegion begin{};
    std::memcpy(&begin, reinterpret_cast<const void*>(region), sizeof begin);
    EXPECT_EQ(begin.mark, ownRegionMark(region)) << size;
    EXPECT_EQ(begin.size % 4096, 0U);
    EXPECT_GE(region + begin.size, block + size);
    const bool isAlone = size > PageZone::kLargestSmall;
    EXPECT_EQ(begin.block, isAlone ? size : 0U);
    EXPECT_TRUE(isAlone ? block == region + kOwnRegionBlock : block > region);
  }
}

}  // namespace
}  // namespace qbv::linux_backend
