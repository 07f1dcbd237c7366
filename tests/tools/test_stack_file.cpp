// What the library writes, the reader reads; and what nobody wrote, it refuses.
#include <random>

#include "tests/memory/stack_file_fixture.h"
#include "tools/stack_file/stack_file.h"

namespace {

using namespace qbv::stack_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class StackFileReaderTest : public StackFileTest {
 protected:
  void write(QBStackHighSpeedLogger& logger, std::uint64_t id, std::uint32_t count, std::uint32_t size) {
    const merge_stack_t sums = entry(id, count, size);
    const base_stack_t event = stack(4, 0x400000 + id * 16);
    logger.updateStack(&sums, &event);
  }
  std::optional<Contents> parsed(const std::string& bytes) { return parse(bytes, error); }
  static std::vector<std::uint64_t> ids(const std::vector<Stack>& stacks) {
    std::vector<std::uint64_t> result;
    for (const Stack& entry : stacks) result.push_back(entry.id);
    return result;
  }
  std::string error;
};

TEST_F(StackFileReaderTest, ReadsWhatTheLoggerWrote) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  ASSERT_TRUE(parsed(content()).has_value()) << "a file in which nothing was logged yet";
  EXPECT_THAT(parsed(content())->stacks, IsEmpty());
  for (std::uint64_t id = 1; id <= 600; ++id) write(logger, id, 2, static_cast<std::uint32_t>(id * 10));
  const auto contents = parsed(content());
  ASSERT_TRUE(contents.has_value()) << error;
  EXPECT_EQ(contents->slots, 1000U);
  EXPECT_THAT(contents->stacks, SizeIs(600));
  EXPECT_THAT(contents->problems, IsEmpty());
  const Stack& first = contents->stacks[1];  // its home is slot 1
  EXPECT_EQ(first.id, 1U);
  EXPECT_EQ(first.count, 2U);
  EXPECT_EQ(first.bytes, 10U);
  EXPECT_THAT(first.frames, ElementsAre(0x400010, 0x400011, 0x400012, 0x400013));
  EXPECT_EQ(totalsOf(contents->stacks).bytes, 10U * 600 * 601 / 2);
  EXPECT_EQ(totalsOf(contents->stacks).count, 1200U);
}

TEST_F(StackFileReaderTest, OfSeveralCopiesTheOneCountsThatTheWriterFinds) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  write(logger, 498, 1, 1);
  write(logger, 498 + 499, 1, 50);  // in the slot after its home, the file's last one
  const merge_stack_t gone = entry(498, 0, 0);
  logger.removeStack(&gone, true);
  write(logger, 498 + 499, 7, 70);  // at its home
  write(logger, 498 + 2 * 499, 3, 3);
  const auto contents = parsed(content());
  ASSERT_TRUE(contents.has_value());
  ASSERT_THAT(ids(contents->stacks), ElementsAre(498 + 2 * 499, 498 + 499));
  EXPECT_EQ(contents->stacks[1].bytes, 70U);
  EXPECT_THAT(contents->problems, ElementsAre("older copies of stacks were left out: 1"));
}

TEST_F(StackFileReaderTest, CutShortGivesItsWholeSlotsAndSaysSo) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  for (std::uint64_t id = 1; id <= 20; ++id) write(logger, id, 1, 1);
  const auto contents = parsed(content().substr(0, 11 * 536 + 300));
  ASSERT_TRUE(contents.has_value());
  EXPECT_THAT(contents->stacks, SizeIs(10));
  EXPECT_THAT(contents->problems, ElementsAre("the file is cut short: it has 6196 of 268000 bytes"));
}

TEST_F(StackFileReaderTest, HalfWrittenSlotIsLeftOut) {
  QBStackHighSpeedLogger logger(500, &zone, path);
  for (std::uint64_t id = 1; id <= 20; ++id) write(logger, id, 1, 1);
  std::string bytes = content();
  bytes[5 * 536 + 12] = 65;  // one frame more than a slot holds
  const auto contents = parsed(bytes);
  ASSERT_TRUE(contents.has_value());
  EXPECT_THAT(contents->stacks, SizeIs(19));
  EXPECT_THAT(contents->problems, ElementsAre("slots that make no sense were left out: 1"));
}

TEST_F(StackFileReaderTest, RefusesWhatIsNoStackFile) {
  EXPECT_FALSE(parsed("").has_value());
  EXPECT_THAT(error, HasSubstr("is empty"));
  EXPECT_FALSE(parsed("#!/bin/sh\n").has_value());
  EXPECT_THAT(error, HasSubstr("10 bytes are less than one slot"));
  std::string text;
  while (text.size() < 268000) text += "Process:         quibapp [4242]\n";
  EXPECT_FALSE(parsed(text.substr(0, 268000)).has_value());
  EXPECT_THAT(error, HasSubstr("most of its slots make no sense"));
  std::mt19937 random(1);
  std::string noise(536000, '\0');
  for (char& byte : noise) byte = static_cast<char>(random());
  EXPECT_FALSE(parsed(noise).has_value());
}

TEST(StackFileWeights, HeaviestFirstByEitherWeight) {
  std::vector<Stack> stacks = {
      {1, 5, 100, 0, {}}, {2, 50, 100, 0, {}}, {3, 1, 900, 0, {}}, {4, 5, 100, 0, {}}};
  const auto order = [&](Weight weight) {
    sortByWeight(stacks, weight);
    std::vector<std::uint64_t> ids;
    for (const Stack& entry : stacks) ids.push_back(entry.id);
    return ids;
  };
  EXPECT_THAT(order(Weight::bytes), ElementsAre(3, 2, 1, 4));
  EXPECT_THAT(order(Weight::count), ElementsAre(2, 1, 4, 3));
}

TEST(StackFileWeights, FoldedLineHasOneSeparatorAndOneBlank) {
  EXPECT_EQ(foldedLine({"malloc", "openDocument", "main"}, 4096), "main;openDocument;malloc 4096");
  EXPECT_EQ(foldedLine({"std::pair<int, char> f;g\n", ""}, 1), "?;std::pair<int,_char>_f:g_ 1");
}

}  // namespace
