#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/profiler/qb_symbol_rebind.h"

namespace qbv {
namespace {

constexpr std::uint64_t kMessageSend = 0x1000, kOther = 0x2000, kHook = 0x7000, kLaterHook = 0x8000;

void* pointer(std::uint64_t value) {
  return reinterpret_cast<void*>(value);
}
std::uint64_t number(const void* value) {
  return reinterpret_cast<std::uint64_t>(value);
}

class SymbolRebind : public testing::Test {
 protected:
  // Symbols 0 to 4 of every image.
  static ScriptedImageBuilder image() {
    ScriptedImageBuilder builder;
    builder.slide(0x40000)
        .segment("__TEXT", 0x100000000, 0x4000)
        .linkedit()
        .symbols({{"_objc_msgSend"}, {"_other"}, {"_"}, {""}, {"objc_msgSend"}});
    return builder;
  }
  static ScriptedImageBuilder imageWithSlots(std::vector<ScriptedSlot> slots,
                                             const std::string& segment = "__DATA",
                                             std::uint32_t type = S_LAZY_SYMBOL_POINTERS) {
    return image().slots(segment, {{type, std::move(slots)}}).indirectSymbols();
  }
  std::uint32_t add(const ScriptedImageBuilder& builder) {
    return scripted_.images.add(builder.build(), "/usr/lib/libhost.so");
  }
  std::uint64_t slot(std::uint32_t place, std::size_t index) {
    return scripted_.images.image(place).slot(index);
  }
  static void rebind(const char* name, std::uint64_t replacement, void** replaced = nullptr) {
    const qb_rebinding request{name, pointer(replacement), replaced};
    qb_rebind_symbols(&request);
  }

  ScriptedPlatform scripted_;
};

TEST_F(SymbolRebind, FirstCallRegistersAndReachesImagesOfThenAndLater) {
  const std::uint32_t one = add(imageWithSlots({{0, kMessageSend}, {1, kOther}}));
  std::string name = "objc_msgSend";
  rebind(name.c_str(), kHook);
  name = "overwritten..";
  EXPECT_EQ(scripted_.images.registrations(), 1U);
  EXPECT_EQ(slot(one, 0), kHook);
  EXPECT_EQ(slot(one, 1), kOther);

  const std::uint32_t two = add(imageWithSlots({{1, kOther}, {0, kMessageSend}}));
  EXPECT_EQ(slot(two, 0), kOther);
  EXPECT_EQ(slot(two, 1), kHook);

  rebind("other", kLaterHook);
  EXPECT_EQ(scripted_.images.registrations(), 1U);
  EXPECT_EQ(slot(one, 0), kHook);
  EXPECT_EQ(slot(one, 1), kLaterHook);
  const std::uint32_t three = add(imageWithSlots({{0, kMessageSend}, {1, kOther}}));
  EXPECT_EQ(slot(three, 0), kHook);
  EXPECT_EQ(slot(three, 1), kLaterHook);
}

TEST_F(SymbolRebind, TheNewestRequestOfANameDecides) {
  const std::uint32_t one = add(imageWithSlots({{0, kMessageSend}}));
  void* first = nullptr;
  void* second = nullptr;
  rebind("objc_msgSend", kHook, &first);
  rebind("objc_msgSend", kLaterHook, &second);
  EXPECT_EQ(slot(one, 0), kLaterHook);
  EXPECT_EQ(number(first), kMessageSend);
  EXPECT_EQ(number(second), kHook);
  const std::uint32_t two = add(imageWithSlots({{0, kMessageSend}}));
  EXPECT_EQ(slot(two, 0), kLaterHook);
  EXPECT_EQ(number(second), kMessageSend);
}

TEST_F(SymbolRebind, SavesWhatTheLastSlotHeldThatDidNotHoldTheReplacement) {
  add(imageWithSlots({{0, 0x11}, {0, 0x12}}));
  const std::uint32_t last = add(imageWithSlots({{0, 0x13}, {0, kHook}}));
  void* replaced = nullptr;
  rebind("objc_msgSend", kHook, &replaced);
  EXPECT_EQ(number(replaced), 0x13U);
  rebind("objc_msgSend", kHook, &replaced);
  EXPECT_EQ(number(replaced), 0x13U);
  EXPECT_EQ(slot(last, 1), kHook);
}

TEST_F(SymbolRebind, SavesTheFunctionBehindASlotThatIsNotBound) {
  constexpr std::uint64_t kStub = 0x500;
  scripted_.images.setFunctionBehind(kStub, kMessageSend);
  const std::uint32_t one = add(imageWithSlots({{0, kStub}}));
  void* replaced = nullptr;
  rebind("objc_msgSend", kHook, &replaced);
  EXPECT_EQ(number(replaced), kMessageSend);
  rebind("objc_msgSend", number(replaced));
  EXPECT_EQ(slot(one, 0), kMessageSend);
}

TEST_F(SymbolRebind, ReachesBothKindsOfSectionsInBothDataSegmentsAndNoOthers) {
  constexpr std::uint32_t kLiterals = 0, kLazyInHighBits = 0x700;
  const std::vector<ScriptedSlot> one{{0, kMessageSend}};
  const std::uint32_t place = add(image()
                                      .slots("__DATA_CONST", {{S_NON_LAZY_SYMBOL_POINTERS, one}})
                                      .slots("__DATA", {{S_LAZY_SYMBOL_POINTERS, one},
                                                        {kLiterals, one},
                                                        {kLazyInHighBits, one},
                                                        {0x80000000 | S_NON_LAZY_SYMBOL_POINTERS, one}})
                                      .slots("__DATA_DIRTY", {{S_LAZY_SYMBOL_POINTERS, one}})
                                      .indirectSymbols());
  rebind("objc_msgSend", kHook);
  std::vector<std::uint64_t> found;
  for (std::size_t i = 0; i < 6; ++i) found.push_back(slot(place, i));
  EXPECT_EQ(found,
            (std::vector<std::uint64_t>{kHook, kHook, kMessageSend, kMessageSend, kHook, kMessageSend}));
}

TEST_F(SymbolRebind, LeavesSlotsWithoutASymbolAndNamesThatDiffer) {
  const std::vector<ScriptedSlot> slots{{INDIRECT_SYMBOL_LOCAL, 1},
                                        {INDIRECT_SYMBOL_ABS, 2},
                                        {INDIRECT_SYMBOL_LOCAL | INDIRECT_SYMBOL_ABS, 3},
                                        {2, 4},
                                        {3, 5},
                                        {4, 6}};
  const std::uint32_t one = add(imageWithSlots(slots));
  for (const char* name : {"", "objc_msgsend", "objc_msgSen", "objc_msgSend_", "_objc_msgSend"})
    rebind(name, kHook);
  for (std::size_t i = 0; i < slots.size(); ++i) EXPECT_EQ(slot(one, i), slots[i].value) << i;
  rebind("bjc_msgSend", kHook);  // one character in front is not looked at
  EXPECT_EQ(slot(one, 5), kHook);
}

TEST_F(SymbolRebind, MakesConstantDataWritableAndNothingElse) {
  const std::uint32_t one =
      add(image()
              .slots("__DATA", {{S_LAZY_SYMBOL_POINTERS, {{0, kMessageSend}}}})
              .slots("__DATA_CONST", {{S_NON_LAZY_SYMBOL_POINTERS, {{0, kMessageSend}, {1, kOther}}}})
              .indirectSymbols());
  rebind("objc_msgSend", kHook);
  const auto protections = scripted_.images.protections();
  ASSERT_EQ(protections.size(), 1U);
  const ScriptedImage& image = scripted_.images.image(one);
  EXPECT_TRUE(image.holds(pointer(protections[0].address), 16));
  EXPECT_EQ(*reinterpret_cast<const std::uint64_t*>(protections[0].address), kHook);
  EXPECT_EQ(protections[0].size, 16U);
  EXPECT_FALSE(protections[0].setMaximum);
  EXPECT_EQ(protections[0].protection, 0x13);
}

TEST_F(SymbolRebind, DiesWhenConstantDataStaysReadOnly) {
  add(imageWithSlots({{0, kMessageSend}}, "__DATA_CONST"));
  scripted_.images.setProtectResult(2);
  EXPECT_DEATH(rebind("objc_msgSend", kHook),
               "false && \"vm_protect\\(\\) failure.\".*qb_perform_rebinding_with_section.*"
               "qb_symbol_rebind.*103");
}

TEST_F(SymbolRebind, LeavesImagesThatLackWhatItNeeds) {
  const std::vector<ScriptedSlotSection> slots{{S_LAZY_SYMBOL_POINTERS, {{0, kMessageSend}}}};
  const std::vector<ScriptedSymbol> symbols{{"_objc_msgSend"}};
  std::vector<std::uint32_t> places;
  places.push_back(add(ScriptedImageBuilder().symbols(symbols).slots("__DATA", slots).indirectSymbols()));
  places.push_back(add(ScriptedImageBuilder().linkedit().slots("__DATA", slots).indirectSymbols()));
  places.push_back(add(ScriptedImageBuilder().linkedit().symbols(symbols).slots("__DATA", slots)));
  places.push_back(add(image().slots("__DATA", slots).indirectSymbols(0)));
  places.push_back(add(image().slots("__DATA", slots).indirectSymbols().commandCount(0)));
  places.push_back(add(image().slots("__DATA", slots).indirectSymbols()));
  scripted_.images.setUnknown(places.back(), true);
  rebind("objc_msgSend", kHook);
  for (const std::uint32_t place : places) EXPECT_EQ(slot(place, 0), kMessageSend) << place;
  scripted_.images.setUnknown(places.back(), false);
  rebind("objc_msgSend", kHook);
  EXPECT_EQ(slot(places.back(), 0), kHook);
}

// The first command of each kind would lead nowhere.
TEST_F(SymbolRebind, OfRepeatedCommandsTheLastCounts) {
  const std::uint32_t one = add(ScriptedImageBuilder()
                                    .segment("__LINKEDIT", 0x1, 0x1000, 0)
                                    .rawSymtab(0x7ffffff0, 1, 0x7ffffff0, 1)
                                    .indirectSymbols(0)
                                    .linkedit()
                                    .symbols({{"_objc_msgSend"}})
                                    .slots("__DATA", {{S_LAZY_SYMBOL_POINTERS, {{0, kMessageSend}}}})
                                    .indirectSymbols());
  rebind("objc_msgSend", kHook);
  EXPECT_EQ(slot(one, 0), kHook);
}

TEST_F(SymbolRebind, ShortAndHostileSectionsAreLeftAlone) {
  std::vector<ScriptedSlotSection> sections;
  const auto section = [&sections](std::uint32_t symbol) -> ScriptedSlotSection& {
    return sections.emplace_back(
        ScriptedSlotSection{S_LAZY_SYMBOL_POINTERS, {{symbol, kMessageSend}}, {}, {}, {}});
  };
  section(0).size = 7;                 // shorter than a pointer
  section(0).size = 1ULL << 40;        // reaches out of the image
  section(0).firstEntry = 0xfffffff0;  // indirect symbols outside
  section(0x00fffff0);                 // symbol outside
  section(5);                          // its name outside
  section(0).size = 15;                // good, rounded down
  ScriptedImageBuilder builder;
  builder.slide(0x40000).linkedit().symbols(
      {{"_objc_msgSend"}, {"_a"}, {"_b"}, {"_c"}, {"_d"}, {"_e", 0, 0, 0x0f, 1, 0x7fffffff}});
  const std::uint32_t one = add(builder.slots("__DATA", sections).indirectSymbols());
  rebind("objc_msgSend", kHook);
  for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(slot(one, i), kMessageSend) << i;
  EXPECT_EQ(slot(one, 5), kHook);
}

TEST_F(SymbolRebind, OneSectionIsRebundWithTablesOfTheCallers) {
  std::uint64_t slots[] = {kMessageSend, kOther, kMessageSend};
  const nlist_64 symbols[] = {{1, 0, 0, 0, 0}, {15, 0, 0, 0, 0}};
  const char strings[] = "\0_objc_msgSend\0_other";
  const std::uint32_t indirect[] = {0xdead, 0, 1, INDIRECT_SYMBOL_LOCAL};
  section_64 section{};
  section.addr = number(slots) - 0x100;
  section.size = sizeof slots;
  section.reserved1 = 1;
  void* replaced = nullptr;
  qb_rebinding requests[] = {{"none", pointer(kLaterHook), nullptr},
                             {"objc_msgSend", pointer(kHook), &replaced}};
  const qb_rebindings_entry list{requests, 2, nullptr};
  qb_perform_rebinding_with_section(&list, &section, 0x100, symbols, strings, indirect);
  EXPECT_EQ(slots[0], kHook);
  EXPECT_EQ(slots[1], kOther);
  EXPECT_EQ(slots[2], kMessageSend);
  EXPECT_EQ(number(replaced), kMessageSend);
}

}  // namespace
}  // namespace qbv
