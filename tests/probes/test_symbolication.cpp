#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>

#include "vitalscope/platform/scripted/scripted_image_builder.h"
#include "vitalscope/platform/scripted/scripted_images.h"
#include "vitalscope/probes/symbolicate.h"

namespace qbv {
namespace {

constexpr std::uint64_t kText = 0x100000000;
constexpr std::uint64_t kTextSize = 0x4000;
constexpr std::intptr_t kSlide = 0x5000;

ScriptedImageBuilder usualImage() {
  return ScriptedImageBuilder().slide(kSlide).segment("__TEXT", kText, kTextSize).linkedit();
}

std::uint64_t inText(std::uint64_t offset) {
  return kText + offset + static_cast<std::uint64_t>(kSlide);
}

class Symbolication : public testing::Test {
 protected:
  qbv_symbol_record at(std::uint64_t programCounter) {
    qbv_symbol_record record{"stale", 1, "stale", 1};
    symbolicate(images_, &programCounter, &record, 1, 0);
    return record;
  }
  std::string nameAt(std::uint64_t programCounter) {
    const qbv_symbol_record record = at(programCounter);
    return record.symbol_name != nullptr ? record.symbol_name : "(null)";
  }
  void expectNothing(const qbv_symbol_record& record) {
    EXPECT_EQ(record.image_path, nullptr);
    EXPECT_EQ(record.image_load_address, 0U);
    EXPECT_EQ(record.symbol_name, nullptr);
    EXPECT_EQ(record.symbol_address, 0U);
  }

  ScriptedImages images_;
};

TEST_F(Symbolication, NearestSymbolBelowNamesTheAddress) {
  images_.add(usualImage()
                  .symbols({{"_late", kText + 0x900},
                            {"", 0},
                            {"_first", kText + 0x100},
                            {"__twice", kText + 0x200},
                            {"_tie", kText + 0x300},
                            {"plain", kText + 0x300},
                            {"_nameless", kText + 0x400, 16}})
                  .build(),
              "/usr/lib/libone.so");
  images_.setLoadAddress(0, 0x7000);
  expectNothing(at(inText(0) - 1));
  expectNothing(at(inText(kTextSize)));

  const qbv_symbol_record before = at(inText(0xff));
  EXPECT_STREQ(before.image_path, "/usr/lib/libone.so");
  EXPECT_EQ(before.image_load_address, 0x7000U);
  EXPECT_EQ(before.symbol_name, nullptr);
  EXPECT_EQ(before.symbol_address, 0U);

  EXPECT_EQ(nameAt(inText(0x100)), "first");
  EXPECT_EQ(at(inText(0x1ff)).symbol_address, inText(0x100));
  EXPECT_EQ(nameAt(inText(0x2ff)), "_twice");
  EXPECT_EQ(nameAt(inText(0x300)), "plain");
  EXPECT_EQ(nameAt(inText(0x401)), "(null)");
  EXPECT_EQ(at(inText(0x401)).symbol_address, inText(0x400));
  EXPECT_EQ(nameAt(inText(kTextSize - 1)), "late");
}

TEST_F(Symbolication, OnlyTheFirstAddressMayBeAProgramCounter) {
  images_.add(usualImage().symbols({{"_f", kText + 0x100}, {"_g", kText + 0x200}}).build(), "/lib/a");
  const std::array<std::uint64_t, 4> addresses{inText(0x200), inText(0x200), inText(0x203), inText(0x204)};
  std::array<qbv_symbol_record, 4> records{};
  symbolicate(images_, addresses.data(), records.data(), 4, 0);
  EXPECT_STREQ(records[0].symbol_name, "g");
  EXPECT_STREQ(records[1].symbol_name, "f");
  EXPECT_STREQ(records[2].symbol_name, "f");  // the low bits do not count
  EXPECT_STREQ(records[3].symbol_name, "g");
  symbolicate(images_, addresses.data(), records.data(), 1, 1);
  EXPECT_STREQ(records[0].symbol_name, "f");

  records[0].symbol_name = "untouched";
  symbolicate(images_, addresses.data(), records.data(), 0, 0);
  symbolicate(images_, nullptr, nullptr, -1, 0);
  EXPECT_STREQ(records[0].symbol_name, "untouched");
}

TEST_F(Symbolication, ImagesAreSearchedInOrderPastThoseThatCannotHoldTheAddress) {
  images_.addEmptyPlace();
  images_.add(usualImage().magic(0x464c457f).symbols({{"_strange", kText + 1}}).build(), "/strange");
  images_.add(usualImage().magic(MH_CIGAM_64).symbols({{"_first", kText + 1}}).build(), "/first");
  images_.add(usualImage().symbols({{"_second", kText + 1}}).build(), "/second");
  EXPECT_EQ(nameAt(inText(2)), "first");
  images_.remove(2);
  EXPECT_EQ(nameAt(inText(2)), "second");

  ScriptedImage narrow = ScriptedImageBuilder(ScriptedImageBuilder::Width::bits32)
                             .slide(-0x1000)
                             .segment("__TEXT", 0x4000, 0x1000)
                             .linkeditAt(0x90000, 0x2000)
                             .symbols({{"_narrow", 0x4100}})
                             .build();
  const std::uint64_t there = narrow.address(0x4123);
  images_.add(std::move(narrow), "/narrow");
  EXPECT_EQ(nameAt(there), "narrow");
}

TEST_F(Symbolication, AFurtherTableServesWhenTheFirstHasNothingBelow) {
  images_.add(usualImage()
                  .symbols({{"_high", kText + 0x800}, {"_zero", 0}})
                  .symbols({{"_low", kText + 0x100}})
                  .build(),
              "/two");
  EXPECT_EQ(nameAt(inText(0x7ff)), "low");
  EXPECT_EQ(nameAt(inText(0x900)), "high");
}

// The tables are then counted from the slide: an image that is not moved has none, and is not named at all.
TEST_F(Symbolication, WithoutLinkeditTheSlideIsTheBase) {
  ScriptedImageBuilder builder;
  builder.segment("__TEXT", kText, kTextSize).symbols({{"_f", kText + 1}});
  images_.add(builder.build(), "/unmoved");
  expectNothing(at(kText + 2));
  images_.setSlide(0, 0x1000);
  EXPECT_STREQ(at(kText + 0x1002).image_path, "/unmoved");
  EXPECT_EQ(nameAt(kText + 0x1002), "(null)");  // 0x1000 and above is not the image's
}

TEST_F(Symbolication, AGuessIsNeverBelieved) {
  images_.add(usualImage().symbols({{"_right", kText + 1}}).build(), "/right");
  images_.add(ScriptedImageBuilder().segment("__TEXT", 0x10, 0x10).linkedit().build(), "/wrong");
  for (const std::optional<std::uint32_t> guess :
       {std::optional<std::uint32_t>{}, std::optional<std::uint32_t>{1}, std::optional<std::uint32_t>{77},
        std::optional<std::uint32_t>{0}}) {
    images_.setLikelyImage([guess](std::uint64_t) { return guess; });
    EXPECT_EQ(nameAt(inText(2)), "right");
    EXPECT_EQ(at(inText(kTextSize)).image_path, nullptr);
  }
}

TEST_F(Symbolication, SortedTablesAnswerLikeUnsortedOnes) {
  std::mt19937 random(7);
  std::vector<ScriptedSymbol> symbols;
  for (int i = 0; i < 500; ++i) {
    const std::uint64_t value = i < 5 ? 0 : kText + random() % 600 * 8;
    symbols.push_back({"_s" + std::to_string(i), value});
  }
  std::ranges::stable_sort(symbols, {}, &ScriptedSymbol::value);
  images_.add(usualImage().symbols(symbols).build(), "/linear");
  ScriptedImages sorted;
  sorted.add(usualImage().symbols(symbols).sortedSymbols().build(), "/sorted");
  for (std::uint64_t offset = 0; offset < 600 * 8 + 16; ++offset) {
    const std::uint64_t address = inText(offset);
    qbv_symbol_record record{};
    symbolicate(sorted, &address, &record, 1, 0);
    const qbv_symbol_record linear = at(address);
    ASSERT_EQ(record.symbol_address, linear.symbol_address) << offset;
    ASSERT_STREQ(record.symbol_name, linear.symbol_name) << offset;
  }
}

TEST_F(Symbolication, BytesThatMakeNoSenseEndTheSearch) {
  const std::vector<ScriptedSymbol> symbols{{"_f", kText + 1}};
  const std::array<std::byte, 8> payload{};
  // Commands without size, or cut short, hide what follows them.
  for (const std::uint32_t size : {0U, 4U, 7U}) {
    ScriptedImages images;
    images.add(ScriptedImageBuilder()
                   .command(0x77, payload, size)
                   .segment("__TEXT", kText, kTextSize)
                   .linkedit()
                   .symbols(symbols)
                   .commandCount(0xffffffff)
                   .build(),
               "/stuck");
    qbv_symbol_record record{};
    symbolicate(images, &kText, &record, 1, 0);
    EXPECT_EQ(record.image_path, nullptr);
  }
  images_.add(ScriptedImageBuilder().command(LC_SEGMENT_64, payload).build(), "/short");
  images_.add(usualImage().rawSymtab(0xfffffff0, 0xffffffff, 8, 8).build(), "/outside");
  EXPECT_STREQ(at(inText(2)).image_path, "/outside");
  EXPECT_EQ(nameAt(inText(2)), "(null)");
}

TEST_F(Symbolication, NamesMustEndInsideTheImage) {
  images_.add(usualImage().symbols({{"_f", kText + 1, 0, 0x0f, 1, 0x7fffffff}}).build(), "/far");
  EXPECT_EQ(nameAt(inText(2)), "(null)");
  EXPECT_EQ(at(inText(2)).symbol_address, inText(1));
}

// Every length of the bytes: an address sanitizer sees any read past their end.
TEST_F(Symbolication, ImagesCutAtAnyPlaceAreReadNoFurther) {
  ScriptedImageBuilder builder = usualImage().symbols({{"_f", kText + 1}, {"_g", kText + 9}});
  const std::size_t whole = builder.build().size();
  std::size_t named = 0;
  for (std::size_t size = 0; size <= whole; ++size) {
    for (const std::uint32_t claimed : {0U, 0x1000000U}) {
      ScriptedImageBuilder cut = builder;
      ScriptedImages images;
      images.add(cut.truncate(size).commandBytes(claimed).build(), "/cut");
      const std::uint64_t address = inText(10);
      qbv_symbol_record record{};
      symbolicate(images, &address, &record, 1, 0);
      named += record.symbol_name != nullptr ? 1 : 0;
    }
  }
  EXPECT_GE(named, 2U);
}

}  // namespace
}  // namespace qbv
