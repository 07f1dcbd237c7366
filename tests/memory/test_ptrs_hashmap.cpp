#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <unordered_map>
#include <vector>

#include "vitalscope/memory/QBPtrsHashmap.h"
#include "vitalscope/platform/scripted/scripted_zone.h"

namespace {

bool insert(QBPtrsHashmap& table, std::uint64_t address, std::uint64_t stackId = 1, std::uint32_t size = 16) {
  const base_ptr_log record{stackId, size};
  return table.insertPtr(address, &record);
}

class PtrsHashmapTest : public testing::Test {
 protected:
  qbv::ScriptedZone zone;
};

TEST_F(PtrsHashmapTest, LastBucketStaysEmpty) {
  {
    QBPtrsHashmap table(500000, &zone);
    EXPECT_EQ(zone.liveBytes(), 4000000U);
    EXPECT_TRUE(insert(table, 0));
    EXPECT_TRUE(insert(table, 499999));
    EXPECT_TRUE(insert(table, 499998));
    auto** const heads = static_cast<ptr_node**>(table.getHashmapEntry());
    ASSERT_NE(heads[0], nullptr);
    ASSERT_NE(heads[0]->next, nullptr);
    EXPECT_EQ(heads[0]->next->address, 499999U) << "appended at the chain's end";
    EXPECT_NE(heads[499998], nullptr);
    EXPECT_EQ(heads[499999], nullptr);
    EXPECT_EQ(table.getEntryNum(), 500000U);
  }
  EXPECT_EQ(zone.liveBlocks(), 0U) << "everything went back to the zone";
}

TEST_F(PtrsHashmapTest, InsertCountsEachPositionItExamines) {
  QBPtrsHashmap table(11, &zone);
  EXPECT_TRUE(insert(table, 4));
  EXPECT_EQ(table.getCollisionNum(), 1U) << "an empty bucket counts as one position";
  EXPECT_TRUE(insert(table, 14));
  EXPECT_EQ(table.getCollisionNum(), 2U);
  EXPECT_TRUE(insert(table, 24));
  EXPECT_EQ(table.getCollisionNum(), 4U);
  EXPECT_FALSE(insert(table, 24, 9, 99));
  EXPECT_EQ(table.getCollisionNum(), 7U) << "the third of three";
  EXPECT_FALSE(insert(table, 4));
  EXPECT_EQ(table.getCollisionNum(), 8U);
  EXPECT_EQ(table.getAccessNum(), 5U);
  EXPECT_EQ(table.getRecordNum(), 3U);
  EXPECT_EQ(table.lookupPtr(24)->size, 16U) << "a refused insert leaves the record as it was";
}

TEST_F(PtrsHashmapTest, RemoveWritesBothValuesOrNone) {
  QBPtrsHashmap table(11, &zone);
  for (const std::uint64_t address : {4U, 14U, 24U}) insert(table, address, address * 2, 100);
  std::uint32_t size = 7;
  std::uint64_t stackId = 7;
  EXPECT_FALSE(table.removePtr(34, &size, &stackId));
  EXPECT_EQ(table.lookupPtr(34), nullptr);
  EXPECT_TRUE(table.removePtr(14, &size, nullptr));
  EXPECT_EQ(size, 7U);
  EXPECT_TRUE(table.removePtr(4, &size, &stackId));
  EXPECT_EQ(size, 100U);
  EXPECT_EQ(stackId, 8U);
  EXPECT_EQ(table.lookupPtr(24)->stack_id, 48U);
  EXPECT_EQ(table.getRecordNum(), 1U);
  EXPECT_EQ(table.getAccessNum(), 3U) << "only inserts count";
}

TEST_F(PtrsHashmapTest, ZoneWithoutMemoryDropsRecordsAndKeepsTheTableWhole) {
  {
    QBPtrsHashmap table(11, &zone);
    insert(table, 4);
    zone.failAfter(0);
    EXPECT_FALSE(insert(table, 14));
    EXPECT_FALSE(insert(table, 5));
    EXPECT_EQ(table.create_hashmap_data(6, nullptr), nullptr);
    EXPECT_EQ(table.getRecordNum(), 1U);
    EXPECT_EQ(table.lookupPtr(14), nullptr);
    zone.supplyAgain();
    EXPECT_TRUE(insert(table, 14));
    EXPECT_TRUE(table.removePtr(4, nullptr, nullptr));
    EXPECT_NE(table.lookupPtr(14), nullptr);
  }
  EXPECT_EQ(zone.liveBlocks(), 0U);
}

TEST_F(PtrsHashmapTest, TableWithoutBucketsTakesNothing) {
  zone.failAfter(0);
  QBPtrsHashmap table(11, &zone);
  zone.supplyAgain();
  EXPECT_EQ(table.getHashmapEntry(), nullptr);
  EXPECT_FALSE(insert(table, 4));
  EXPECT_EQ(table.lookupPtr(4), nullptr);
  EXPECT_FALSE(table.removePtr(4, nullptr, nullptr));
  EXPECT_EQ(table.getRecordNum(), 0U);

  QBPtrsHashmap tooLarge(std::numeric_limits<std::uint64_t>::max(), &zone);
  EXPECT_FALSE(insert(tooLarge, 4));
  QBPtrsHashmap tooSmall(0, &zone);
  EXPECT_TRUE(insert(tooSmall, 4));
  EXPECT_TRUE(insert(tooSmall, 5));
  EXPECT_NE(tooSmall.lookupPtr(4), nullptr);
}

TEST_F(PtrsHashmapTest, BehavesLikeAMapOverManyRandomSteps) {
  {
    QBPtrsHashmap table(64, &zone);
    std::unordered_map<std::uint64_t, base_ptr_log> model;
    std::vector<std::vector<std::uint64_t>> chains(63);  // order within each bucket
    std::uint64_t examined = 0;
    std::mt19937 random(3);
    for (int step = 0; step < 40000; ++step) {
      const std::uint64_t address = random() % 400;
      std::vector<std::uint64_t>& chain = chains[address % 63];
      const auto place = std::find(chain.begin(), chain.end(), address);
      if (random() % 2 == 0) {
        const base_ptr_log record{random(), static_cast<std::uint32_t>(random())};
        const bool noMemory = random() % 16 == 0;
        if (noMemory) zone.failAfter(0);
        const bool wanted = place == chain.end() && !noMemory;
        examined += place == chain.end() ? std::max<std::size_t>(chain.size(), 1)
                                         : static_cast<std::size_t>(place - chain.begin()) + 1;
        ASSERT_EQ(table.insertPtr(address, &record), wanted);
        zone.supplyAgain();
        if (wanted) {
          chain.push_back(address);
          model[address] = record;
        }
      } else {
        std::uint32_t size = 0;
        std::uint64_t stackId = 0;
        ASSERT_EQ(table.removePtr(address, &size, &stackId), place != chain.end());
        if (place != chain.end()) {
          ASSERT_EQ(size, model[address].size);
          ASSERT_EQ(stackId, model[address].stack_id);
          chain.erase(place);
          model.erase(address);
        }
      }
      ASSERT_EQ(table.getCollisionNum(), examined);
      ASSERT_EQ(table.getRecordNum(), model.size());
    }
    for (std::uint64_t address = 0; address < 400; ++address) {
      const ptr_node* const entry = table.lookupPtr(address);
      ASSERT_EQ(entry != nullptr, model.contains(address));
      if (entry != nullptr) {
        ASSERT_EQ(entry->stack_id, model[address].stack_id);
      }
    }
    EXPECT_EQ(zone.liveBlocks(), model.size() + 1);
  }
  EXPECT_EQ(zone.liveBlocks(), 0U);
}

}  // namespace
