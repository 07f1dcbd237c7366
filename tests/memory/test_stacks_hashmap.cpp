#include <map>
#include <random>

#include "tests/memory/stack_file_fixture.h"
#include "vitalscope/memory/QBStacksHashmap.h"

namespace {

class StacksHashmapTest : public StackFileTest {
 protected:
  void insert(QBStacksHashmap& table, std::uint64_t id, std::uint32_t size, std::uint32_t count = 1) {
    base_stack_t event = stack(3, id * 1000);
    event.size = size;
    event.count = count;
    table.insertStackAndIncreaseCountIfExist(id, &event);
  }
  // What the file says about a stack; 0 and 0 when it is not there.
  std::pair<std::uint32_t, std::uint32_t> logged(std::uint64_t id) {
    for (const qbv::StackSlot& slot : slotsOnDisk())
      if (slot.count != 0 && slot.stack_id == id) return {slot.count, slot.size};
    return {0, 0};
  }
  using Pair = std::pair<std::uint32_t, std::uint32_t>;
};

TEST_F(StacksHashmapTest, StackEntersTheFileAboveTheThresholdAndLeavesBelowIt) {
  QBStacksHashmap table(50, &zone, path, 1000);
  insert(table, 7, 0);
  insert(table, 7, 1000);
  EXPECT_EQ(table.lookupStack(7)->is_logged, 0U) << "at the threshold it is not logged yet";
  EXPECT_EQ(logged(7), Pair(0, 0));
  insert(table, 7, 1);
  EXPECT_EQ(table.lookupStack(7)->is_logged, 1U);
  EXPECT_EQ(logged(7), Pair(3, 1001));
  insert(table, 7, 99);
  EXPECT_EQ(logged(7), Pair(4, 1100)) << "brought up to date at every insert";

  table.removeIfCountIsZero(7, 100, 1);
  EXPECT_EQ(logged(7), Pair(3, 1000)) << "at the threshold it stays logged";
  table.removeIfCountIsZero(7, 1, 1);
  EXPECT_EQ(logged(7), Pair(0, 0));
  EXPECT_EQ(table.lookupStack(7)->is_logged, 0U);
  EXPECT_EQ(table.lookupStack(7)->count, 2U);

  insert(table, 8, 5000);
  EXPECT_EQ(logged(8), Pair(1, 5000)) << "a new stack may be logged at once";
  EXPECT_EQ(slotOnDisk(8).frames[2], 8002U);
}

TEST_F(StacksHashmapTest, SubtractionStopsAtZeroAndAnEntryGoesWithItsLastAllocation) {
  QBStacksHashmap table(50, &zone, path, 1000);
  const std::size_t before = zone.liveBlocks();
  insert(table, 7, 600, 2);
  insert(table, 56, 2000);
  table.removeIfCountIsZero(7, 5000, 1);
  EXPECT_EQ(table.lookupStack(7)->size, 0U);
  EXPECT_EQ(table.lookupStack(7)->count, 1U);
  table.removeIfCountIsZero(7, 0, 40);
  EXPECT_EQ(table.lookupStack(7), nullptr);
  EXPECT_NE(table.lookupStack(56), nullptr) << "its neighbour in the chain stays";

  table.removeIfCountIsZero(56, 100, 1);
  EXPECT_EQ(table.lookupStack(56), nullptr);
  EXPECT_EQ(logged(56), Pair(0, 0)) << "its slot is free, though its bytes are above the threshold";
  table.removeIfCountIsZero(56, 1, 1);
  EXPECT_EQ(table.getRecordNum(), 0U);
  EXPECT_EQ(zone.liveBlocks(), before);
}

TEST_F(StacksHashmapTest, SumsWrapAt32Bits) {
  QBStacksHashmap table(50, &zone, path, 1000);
  insert(table, 7, 0xFFFFFFFF, 0xFFFFFFFF);
  insert(table, 7, 6, 3);
  EXPECT_EQ(table.lookupStack(7)->size, 5U);
  EXPECT_EQ(table.lookupStack(7)->count, 2U);
}

TEST_F(StacksHashmapTest, ZoneWithoutMemoryDropsNewStacksOnly) {
  QBStacksHashmap table(50, &zone, path, 1000);
  insert(table, 7, 10);
  zone.failAfter(0);
  insert(table, 56, 5000);
  insert(table, 7, 5000);
  EXPECT_EQ(table.getRecordNum(), 1U);
  EXPECT_EQ(table.getAccessNum(), 3U);
  EXPECT_EQ(table.lookupStack(56), nullptr);
  EXPECT_EQ(logged(56), Pair(0, 0));
  EXPECT_EQ(logged(7), Pair(2, 5010));

  QBStacksHashmap none(50, &zone, scripted.files.home() + "/dump/other.mmap", 1000);
  insert(none, 7, 5000);
  none.removeIfCountIsZero(7, 1, 1);
  EXPECT_EQ(none.lookupStack(7), nullptr);
  EXPECT_EQ(none.getRecordNum(), 0U);
}

TEST_F(StacksHashmapTest, WithoutAFileTheSumsAreKeptAllTheSame) {
  QBStacksHashmap table(50, &zone, scripted.files.home() + "/nowhere/file", 1000);
  EXPECT_TRUE(table.logger().hasError());
  insert(table, 7, 5000);
  insert(table, 7, 5000);
  EXPECT_EQ(table.lookupStack(7)->size, 10000U);
  table.removeIfCountIsZero(7, 10000, 2);
  EXPECT_EQ(table.getRecordNum(), 0U);
}

TEST_F(StacksHashmapTest, BehavesLikeAMapOverManyRandomSteps) {
  constexpr std::uint32_t kThreshold = 3000;
  struct Sums {
    std::uint32_t count = 0, size = 0;
    bool isLogged = false;
  };
  std::map<std::uint64_t, Sums> model;
  {
    QBStacksHashmap table(97, &zone, path, kThreshold);
    std::mt19937 random(11);
    for (int step = 0; step < 30000; ++step) {
      const std::uint64_t id = random() % 300;
      const std::uint32_t size = static_cast<std::uint32_t>(random() % 2000);
      const std::uint32_t count = 1 + static_cast<std::uint32_t>(random() % 3);
      if (random() % 2 == 0) {
        insert(table, id, size, count);
        Sums& sums = model[id];
        sums = {sums.count + count, sums.size + size, sums.isLogged || sums.size + size > kThreshold};
      } else {
        table.removeIfCountIsZero(id, size, count);
        if (const auto found = model.find(id); found != model.end()) {
          Sums& sums = found->second;
          sums.size = sums.size > size ? sums.size - size : 0;
          sums.count = sums.count > count ? sums.count - count : 0;
          if (sums.size < kThreshold) sums.isLogged = false;
          if (sums.count == 0) model.erase(found);
        }
      }
      ASSERT_EQ(table.getRecordNum(), model.size());
    }
    bool someLogged = false;
    for (std::uint64_t id = 0; id < 300; ++id) {
      const merge_stack_t* const entry = table.lookupStack(id);
      ASSERT_EQ(entry != nullptr, model.contains(id));
      if (entry == nullptr) continue;
      ASSERT_EQ(entry->count, model[id].count);
      ASSERT_EQ(entry->size, model[id].size);
      ASSERT_EQ(entry->is_logged == 1, model[id].isLogged);
      someLogged = someLogged || model[id].isLogged;
    }
    EXPECT_TRUE(someLogged);
  }
  EXPECT_EQ(zone.liveBlocks(), 0U);
  EXPECT_EQ(scripted.files.openDescriptors(), 0U);
  EXPECT_EQ(scripted.files.mappings(), 0U);
}

}  // namespace
