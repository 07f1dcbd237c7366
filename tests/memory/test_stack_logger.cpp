#include <map>
#include <optional>
#include <random>

#include "tests/memory/stack_file_fixture.h"

namespace {

using qbv::FileCall;

std::uint64_t number(const std::string& bytes, std::size_t offset, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t index = width; index-- > 0;)
    value = value << 8 | static_cast<unsigned char>(bytes[offset + index]);
  return value;
}

TEST_F(StackFileTest, NewFileIsZerosAndASlotHasItsFieldsInPlace) {
  scripted.files.writeAtomically(path, "what an earlier process left");
  QBStackHighSpeedLogger logger(500, &zone, path);
  EXPECT_FALSE(logger.hasError());
  EXPECT_EQ(content(), std::string(268000, '\0'));

  const merge_stack_t sums = entry(0x1122334455667788, 7, 90000);
  const base_stack_t event = stack(64, 0xAABBCCDD00000000, 5);
  logger.updateStack(&sums, &event);
  const std::string bytes = content();
  ASSERT_EQ(bytes.size(), 268000U);
  const std::size_t slot = (0x1122334455667788 % 499) * 536;
  EXPECT_EQ(number(bytes, slot, 4), 7U);
  EXPECT_EQ(number(bytes, slot + 4, 4), 90000U);
  EXPECT_EQ(number(bytes, slot + 8, 4), 5U);
  EXPECT_EQ(number(bytes, slot + 12, 4), 64U);
  EXPECT_EQ(number(bytes, slot + 16, 8), 0x1122334455667788U);
  EXPECT_EQ(number(bytes, slot + 24, 8), 0xAABBCCDD00000000U);
  EXPECT_EQ(number(bytes, slot + 24 + 63 * 8, 8), 0xAABBCCDD0000003FU);
  EXPECT_EQ(bytes.find_first_not_of('\0'), slot);
  EXPECT_LT(bytes.find_last_not_of('\0'), slot + 536);
}

TEST_F(StackFileTest, RewritingAStackCountsItOnceAndNeverWritesPastItsSlot) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  const merge_stack_t sums = entry(10, 1, 1);
  const base_stack_t deeper = stack(80, 500);
  logger.updateStack(&sums, &deeper);
  EXPECT_EQ(slotOnDisk(10).depth, 64U) << "frames past the 64th are left out";
  EXPECT_EQ(slotOnDisk(11).count, 0U);

  update(logger, 10, 2, 400);
  EXPECT_EQ(logger.usedCount(), 1U);
  EXPECT_EQ(slotOnDisk(10).size, 400U);
  EXPECT_EQ(slotOnDisk(10).depth, 3U);

  // A sum that wrapped to nothing frees the slot instead of filling the file.
  for (int round = 0; round < 1000; ++round) update(logger, 10, 0, 400);
  EXPECT_EQ(logger.usedCount(), 0U);
  EXPECT_EQ(logger.capacity(), 500U);
}

TEST_F(StackFileTest, CollisionsProbeOnAndRoundAndAnEmptiedSlotEndsTheSearch) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  update(logger, 498);
  update(logger, 498 + 499);
  update(logger, 498 + 2 * 499);
  EXPECT_EQ(slotOnDisk(498).stack_id, 498U);
  EXPECT_EQ(slotOnDisk(499).stack_id, 498U + 499) << "the last slot is reached by probing only";
  EXPECT_EQ(slotOnDisk(0).stack_id, 498U + 2 * 499);

  remove(logger, 498);
  EXPECT_EQ(slotOnDisk(498).count, 0U);
  EXPECT_EQ(slotOnDisk(498).stack_id, 498U) << "only count and size are emptied";
  remove(logger, 498 + 499);
  EXPECT_EQ(slotOnDisk(499).count, 1U) << "not found any more";
  update(logger, 498 + 499, 9);
  EXPECT_EQ(slotOnDisk(498).count, 9U) << "written a second time";
  EXPECT_EQ(slotOnDisk(499).count, 1U) << "the older copy stays";
  EXPECT_EQ(logger.usedCount(), 3U);
}

TEST_F(StackFileTest, RemovingKeepsTheFieldsThatItDoesNotEmpty) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  update(logger, 20, 5, 500);
  merge_stack_t sums = entry(20, 4, 400);
  logger.removeStack(&sums, false);
  EXPECT_EQ(slotOnDisk(20).count, 4U);
  EXPECT_EQ(slotOnDisk(20).size, 400U);
  EXPECT_EQ(logger.usedCount(), 1U);

  sums.count = 0;
  logger.removeStack(&sums, false);
  EXPECT_EQ(slotOnDisk(20).count, 0U);
  EXPECT_EQ(slotOnDisk(20).size, 400U);
  EXPECT_EQ(slotOnDisk(20).frames[2], 20002U);
  EXPECT_EQ(logger.usedCount(), 0U);
  logger.removeStack(&sums, true);
  EXPECT_EQ(logger.usedCount(), 0U) << "a stack without a slot is left alone";
}

TEST_F(StackFileTest, DoublesWhenTheLastButOneSlotIsTaken) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  for (std::uint64_t id = 0; id < 498; ++id) update(logger, id);
  EXPECT_EQ(logger.capacity(), 500U);
  const std::string before = content();
  update(logger, 498);
  EXPECT_EQ(logger.capacity(), 1000U);
  EXPECT_EQ(logger.usedCount(), 499U);
  const std::string after = content();
  ASSERT_EQ(after.size(), 536000U);
  EXPECT_EQ(after.substr(0, 498 * 536), before.substr(0, 498 * 536)) << "slots keep their positions";
  EXPECT_EQ(after.find_first_not_of('\0', 499 * 536), std::string::npos);
  EXPECT_EQ(zone.liveBlocks(), 0U) << "the copy is given back";

  update(logger, 700, 3);
  EXPECT_EQ(slotOnDisk(700).count, 3U) << "new stacks are placed by the new size";
}

TEST_F(StackFileTest, StacksOfTypeOneNeverGrowTheFileAndGiveUpAfterOneRound) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  for (std::uint64_t id = 0; id < 600; ++id) update(logger, id, 1, 1, 1);
  EXPECT_EQ(logger.capacity(), 500U);
  EXPECT_EQ(logger.usedCount(), 500U);
  update(logger, 3, 8, 1, 1);
  EXPECT_EQ(slotOnDisk(3).count, 8U) << "present ones are still found";
  update(logger, 2, 9);
  EXPECT_EQ(logger.capacity(), 1000U) << "another type grows it";
}

TEST_F(StackFileTest, GrowthWaitsUntilTheZoneHasMemory) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  zone.failAfter(0);
  for (std::uint64_t id = 0; id < 600; ++id) update(logger, id);
  EXPECT_FALSE(logger.hasError());
  EXPECT_EQ(logger.capacity(), 500U);
  EXPECT_EQ(logger.usedCount(), 500U);
  EXPECT_EQ(content().size(), 268000U);
  zone.supplyAgain();
  update(logger, 1, 5);
  EXPECT_EQ(logger.capacity(), 1000U);
  EXPECT_EQ(slotOnDisk(1).count, 5U);
  EXPECT_EQ(slotOnDisk(499).count, 1U);
}

TEST_F(StackFileTest, FailureAtConstructionSwitchesItOffForGood) {
  for (const FileCall call : {FileCall::open, FileCall::setSize, FileCall::map}) {
    scripted.files.fail(call, "stack_backtrace", 28 /* ENOSPC */);
    {
      QBStackHighSpeedLogger logger(500, &zone, path);
      scripted.files.clearFailures();
      EXPECT_TRUE(logger.hasError());
      update(logger, 1);
      remove(logger, 1);
      EXPECT_EQ(logger.usedCount(), 0U);
    }
    EXPECT_EQ(scripted.files.openDescriptors(), 0U);
    EXPECT_EQ(scripted.files.mappings(), 0U);
  }
  const QBStackHighSpeedLogger nowhere(500, &zone, scripted.files.home() + "/no/such/folder/file");
  EXPECT_TRUE(nowhere.hasError());
}

TEST_F(StackFileTest, FailureWhileGrowingKeepsWhatWasWritten) {
  for (const FileCall call : {FileCall::setSize, FileCall::map}) {
    QBStackHighSpeedLogger logger(500, &zone, path);
    for (std::uint64_t id = 0; id < 498; ++id) update(logger, id);
    scripted.files.fail(call, "stack_backtrace", 28, 0, 1);
    update(logger, 498);
    EXPECT_TRUE(logger.hasError());
    EXPECT_EQ(zone.liveBlocks(), 0U);
    update(logger, 5, 77);
    remove(logger, 5);
    const auto slots = slotsOnDisk();
    ASSERT_GE(slots.size(), 500U);
    for (std::size_t index = 0; index < slots.size(); ++index)
      ASSERT_EQ(slots[index].count, index < 499 ? 1U : 0U) << index;
  }
}

TEST_F(StackFileTest, SmallestFileWorks) {
  QBStackHighSpeedLogger logger(0, &zone, path);
  EXPECT_EQ(logger.capacity(), 2U);
  for (std::uint64_t id = 0; id < 5; ++id) update(logger, id);
  EXPECT_EQ(logger.usedCount(), 5U);
  EXPECT_EQ(logger.capacity(), 8U);
}

// The same table written down as plainly as possible.
struct Model {
  struct Slot {
    std::uint32_t count = 0, size = 0;
    std::uint64_t id = 0;
  };
  std::vector<Slot> slots{500};

  std::optional<std::size_t> find(std::uint64_t id, bool forWriting) const {
    const std::size_t most = forWriting ? slots.size() : slots.size() - 1;
    for (std::size_t step = 0; step < most; ++step) {
      const std::size_t index = (id % (slots.size() - 1) + step) % slots.size();
      if (slots[index].count == 0) return forWriting ? std::optional(index) : std::nullopt;
      if (slots[index].id == id) return index;
    }
    return std::nullopt;
  }
  std::size_t used() const {
    std::size_t used = 0;
    for (const Slot& slot : slots) used += slot.count != 0;
    return used;
  }
  void update(std::uint64_t id, std::uint32_t count, std::uint32_t size, std::uint32_t type) {
    if (const auto index = find(id, true)) {
      slots[*index] = {count, size, id};
      if (used() > slots.size() - 2 && type != 1) slots.resize(slots.size() * 2);
    }
  }
  void remove(std::uint64_t id, std::uint32_t count, std::uint32_t size) {
    if (const auto index = find(id, false)) {
      slots[*index].count = count;
      slots[*index].size = size;
    }
  }
};

TEST_F(StackFileTest, BehavesLikeAPlainTableOverManyRandomSteps) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  Model model;
  std::mt19937 random(20);
  for (int step = 0; step < 20000; ++step) {
    // Few home slots make long chains; the set of stacks in use widens.
    const std::uint64_t id = (random() % 40) * 499 + random() % (5 + static_cast<unsigned>(step) / 500);
    const std::uint32_t count = static_cast<std::uint32_t>(random() % 20);
    const std::uint32_t size = static_cast<std::uint32_t>(random() % 1000);
    switch (random() % 5) {
      case 0: {
        remove(logger, id);
        model.remove(id, 0, 0);
        break;
      }
      case 1: {
        const merge_stack_t sums = entry(id, count, size);
        logger.removeStack(&sums, false);
        model.remove(id, count, size);
        break;
      }
      default: {
        const std::uint32_t type = static_cast<std::uint32_t>(random() % 2);
        update(logger, id, count, size, type);
        model.update(id, count, size, type);
      }
    }
    ASSERT_EQ(logger.usedCount(), model.used()) << step;
  }
  EXPECT_GT(model.slots.size(), 500U) << "the steps reached a growth";
  const auto onDisk = slotsOnDisk();
  ASSERT_EQ(onDisk.size(), model.slots.size());
  for (std::size_t index = 0; index < onDisk.size(); ++index) {
    ASSERT_EQ(onDisk[index].count, model.slots[index].count) << index;
    if (onDisk[index].count == 0) continue;
    ASSERT_EQ(onDisk[index].size, model.slots[index].size) << index;
    ASSERT_EQ(onDisk[index].stack_id, model.slots[index].id) << index;
    ASSERT_EQ(onDisk[index].frames[2], model.slots[index].id * 1000 + 2) << index;
  }
}

}  // namespace
