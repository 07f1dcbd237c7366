#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/tools/synthetic_heap.h"
#include "tools/leaks/analysis.h"
#include "tools/leaks/leak_report.h"
#include "tools/leaks/stack_store.h"
#include "vitalscope/platform/linux/own_region.h"

namespace {

using leaks::Address;
using leaks::Analysis;
using leaks::HeapFailure;
using leaks::SyntheticHeap;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
namespace layout = leaks::layout;

Analysis analysisOf(const SyntheticHeap& heap) {
  return leaks::analyse(heap.snapshot());
}

std::vector<Address> leakedIn(const SyntheticHeap& heap) {
  const Analysis analysis = analysisOf(heap);
  EXPECT_EQ(analysis.failure.reason, "");
  std::vector<Address> addresses;
  for (const auto& block : analysis.leaked) addresses.push_back(block.address);
  return addresses;
}

// Most cases are about other blocks than the mapped one.
struct HeapAnalysis : testing::Test {
  HeapAnalysis() { heap.set(SyntheticHeap::kVariables, heap.mappedBlock()); }
  void keep(Address word) { heap.set(nextVariable += 8, word); }

  SyntheticHeap heap;
  Address nextVariable = SyntheticHeap::kVariables;
};

TEST_F(HeapAnalysis, APointerIntoABlockKeepsItAndOneBesideDoesNot) {
  const Address atBegin = heap.allocate(64);
  const Address inside = heap.allocate(64);
  const Address inTail = heap.allocate(64);
  const Address stale = heap.allocate(64);
  const Address header = heap.allocate(64);
  const Address other = heap.allocate(1024, SyntheticHeap::kFurtherArena);
  const Address lost = heap.allocate(2048, SyntheticHeap::kFurtherArena);
  keep(atBegin);
  keep(inside + 20);
  keep(inTail + 55);  // the last byte that the program may use
  keep(stale + 48);   // the next chunk's header, as the allocator's own links have it
  keep(header - 8);   // the size field
  keep(other);
  EXPECT_THAT(leakedIn(heap), ElementsAre(stale, header, lost));
  const Analysis analysis = analysisOf(heap);
  EXPECT_EQ(analysis.totals.blocks, 8u);
  EXPECT_EQ(analysis.totals.arenas, 2u);
  EXPECT_EQ(analysis.totals.mappedBlocks, 1u);
  EXPECT_EQ(analysis.totals.bytes, 5 * 56 + 1016 + 2040 + 0x3000 - 16u);
}

TEST_F(HeapAnalysis, BlocksKeepOthersAndLostOnesAreCountedWithTheirRoot) {
  const Address chain[] = {heap.allocate(48), heap.allocate(48), heap.allocate(48)};
  const Address ring[] = {heap.allocate(80), heap.allocate(80)};
  const Address kept[] = {heap.allocate(48), heap.allocate(48)};
  heap.set(chain[0], chain[1]);
  heap.set(chain[1] + 8, chain[2] + 4);
  heap.set(ring[0], ring[1]);
  heap.set(ring[1], ring[0]);
  heap.set(kept[0], kept[1]);
  keep(kept[0]);
  const auto leaked = analysisOf(heap).leaked;
  ASSERT_EQ(leaked.size(), 5u);
  EXPECT_TRUE(leaked[0].isRoot);
  EXPECT_EQ(leaked[0].contained, 2u);
  EXPECT_EQ(leaked[0].containedBytes, 80u);
  EXPECT_FALSE(leaked[1].isRoot || leaked[2].isRoot);
  EXPECT_TRUE(leaked[3].isRoot);
  EXPECT_EQ(leaked[3].contained, 1u);
  EXPECT_FALSE(leaked[4].isRoot);
}

// A pattern of 2 members with room for 16, and a set of 2 leaves, as the font library keeps them.
TEST_F(HeapAnalysis, DistancesFromFontStructuresLeadToBlocksToo) {
  const Address pattern = heap.allocate(32);
  const Address members = heap.allocate(16 * 16 + 16);
  const Address value = heap.allocate(48);
  const Address characters = heap.allocate(48);
  const Address leaves = heap.allocate(32);
  const Address numbers = heap.allocate(32);
  const Address leaf[] = {heap.allocate(48), heap.allocate(48)};
  keep(pattern);
  heap.set(pattern, 2 | Address{16} << 32);
  heap.set(pattern + 8, members - pattern);
  heap.set(members + 8, value);
  heap.set(members + 24, characters);
  heap.set(characters, 1 | Address{2} << 32);
  heap.set(characters + 8, leaves - characters);
  heap.set(characters + 16, numbers - characters);
  heap.set(leaves, leaf[0] - leaves);
  heap.set(leaves + 8, leaf[1] - leaves);
  EXPECT_THAT(leakedIn(heap), IsEmpty());
  heap.set(leaves + 8, leaf[1] + 8 - leaves);
  EXPECT_THAT(leakedIn(heap), ElementsAre(leaves, numbers, leaf[0], leaf[1])) << "leads into a block";
  heap.set(pattern, 2 | Address{17} << 32);
  EXPECT_EQ(leakedIn(heap).size(), 7u) << "no room for so many members";
}

TEST_F(HeapAnalysis, AMappedBlockIsLostLikeAnyOther) {
  heap.set(SyntheticHeap::kVariables, 0);
  EXPECT_THAT(leakedIn(heap), ElementsAre(heap.mappedBlock()));
  keep(heap.mappedBlock() + 0x2000);
  EXPECT_THAT(leakedIn(heap), IsEmpty());
}

TEST_F(HeapAnalysis, FreedBlocksAreNotLostWhereverTheyWait) {
  std::vector<Address> blocks;
  for (int i = 0; i < 12; ++i) blocks.push_back(heap.allocate(32));
  const Address cache = heap.allocate(0x290);
  keep(cache);
  const Address lost = blocks[0];
  heap.putIntoFastBin({blocks[1], blocks[2], blocks[3]});
  heap.putIntoCache(cache, {blocks[4], blocks[5], blocks[6]});
  heap.putIntoBin(blocks[8]);
  heap.putIntoBin(blocks[10]);
  for (const std::size_t held : {7, 9, 11}) keep(blocks[held]);
  EXPECT_THAT(leakedIn(heap), ElementsAre(lost));
  // A thread stopped between taking a block and counting it: one more is counted than is there.
  heap.set(cache, heap.get(cache) + 1);
  EXPECT_THAT(leakedIn(heap), ElementsAre(lost));
  // This is no cache: its counts have nothing to do with its lists, whose first block it points to plainly.
  heap.set(cache, heap.get(cache) + 5);
  EXPECT_THAT(leakedIn(heap), ElementsAre(lost, blocks[4], blocks[5]));
}

TEST_F(HeapAnalysis, OnlyTheUsedPartOfALivingStackKeepsBlocks) {
  const Address below = heap.allocate(64);
  const Address above = heap.allocate(64);
  const Address redZone = heap.allocate(64);
  const Address inRegister = heap.allocate(64);
  const Address dead = heap.allocate(64);
  const Address storageTable = heap.allocate(64);
  const Address threadLocal = heap.allocate(64);
  heap.set(SyntheticHeap::kStackPointer - 512, below);
  heap.set(SyntheticHeap::kStackPointer + 8, above);
  heap.set(SyntheticHeap::kStackPointer - 64, redZone);
  heap.registers = {7, inRegister};
  const Address deadDescriptor = SyntheticHeap::kDeadStack + SyntheticHeap::kDescriptorOffset;
  heap.set(deadDescriptor - 64, dead);
  heap.set(deadDescriptor + 8, storageTable + 16);
  heap.set(SyntheticHeap::kLiveStack + SyntheticHeap::kDescriptorOffset - 64, threadLocal);
  EXPECT_THAT(leakedIn(heap), ElementsAre(below, dead));
}

TEST_F(HeapAnalysis, WhatTheMonitorKeepsApartKeepsNoBlocks) {
  constexpr Address kRegion = SyntheticHeap::kApart + 0x1000;
  const Address before = heap.allocate(64);
  const Address inTable = heap.allocate(64);
  const Address behind = heap.allocate(64);
  heap.set(kRegion - 8, before);
  heap.set(kRegion + 0x1ff8, inTable);
  heap.set(kRegion + 0x2000, behind);
  EXPECT_THAT(leakedIn(heap), IsEmpty());
  heap.set(kRegion, qbv::linux_backend::ownRegionMark(kRegion));
  heap.set(kRegion + 8, 0x2000);
  EXPECT_THAT(leakedIn(heap), ElementsAre(inTable));
  heap.set(kRegion + 8, ~Address{0});  // not beyond its mapping
  EXPECT_THAT(leakedIn(heap), ElementsAre(inTable, behind));
  heap.set(kRegion, qbv::linux_backend::ownRegionMark(kRegion + 8));  // a copy of another one's begin
  EXPECT_THAT(leakedIn(heap), IsEmpty());
}

TEST_F(HeapAnalysis, AHeapWithAHoleOfForeignMemoryIsWalkedOnBehindIt) {
  const Address before = heap.allocate(64);
  const Address fence = heap.allocate(16);
  const Address foreign = heap.allocate(0x1230);
  const Address behind = heap.allocate(64);
  heap.set(foreign - 8, 16 | layout::kPreviousInUse);
  ASSERT_EQ(heap.get(fence - 8), 16 | layout::kPreviousInUse);
  heap.set(foreign + 0x100, before + 8);  // it is memory of the program's, but inside the allocator's stretch
  EXPECT_THAT(leakedIn(heap), ElementsAre(before, behind));
}

TEST_F(HeapAnalysis, AnUnusedOrMissingHeapMeansAnotherAllocator) {
  for (const Address arena : {SyntheticHeap::kMainArena, SyntheticHeap::kFurtherArena})
    heap.set(arena + layout::kArenaSystemBytes, 0);
  EXPECT_EQ(analysisOf(heap).failure.kind, HeapFailure::Kind::noHeap);
  heap.set(SyntheticHeap::kMainArena + layout::kArenaBins + 80 * 16, 0);
  EXPECT_EQ(analysisOf(heap).failure.kind, HeapFailure::Kind::noHeap);
}

TEST_F(HeapAnalysis, RefusesWhateverDoesNotFit) {
  std::vector<Address> blocks;
  for (int i = 0; i < 4; ++i) blocks.push_back(heap.allocate(64));
  const Address further = heap.allocate(64, SyntheticHeap::kFurtherArena);
  heap.putIntoBin(blocks[1]);
  ASSERT_EQ(analysisOf(heap).failure.reason, "");
  const Address mainArena = SyntheticHeap::kMainArena;
  const struct {
    const char* what;
    Address at;
    std::uint64_t value;
  } kFaults[] = {
      {"size of zero", blocks[2] - 8, 1},
      {"size beyond the end", blocks[2] - 8, (Address{1} << 40) | 1},
      {"size that wraps", blocks[2] - 8, ~Address{0} - 14},
      {"size off the chunks' grid", blocks[2] - 8, 72 | 1},
      {"mapped chunk in the heap", blocks[2] - 8, 64 | 1 | 2},
      {"other arena's chunk", blocks[2] - 8, 64 | 1 | 4},
      {"free chunk without its size behind", blocks[2] - 16, 48},
      {"end before the begin", mainArena + layout::kArenaTop, SyntheticHeap::kMainHeap - 64},
      {"end between two chunks", mainArena + layout::kArenaTop, blocks[3]},
      {"end outside", mainArena + layout::kArenaTop, 0x1000},
      {"more bytes than addresses", mainArena + layout::kArenaSystemBytes, ~Address{0}},
      {"held lock", mainArena + layout::kArenaLock, 1},
      {"several places", mainArena + layout::kArenaLock, std::uint64_t{2} << 32},
      {"arena that is none", mainArena + layout::kArenaNext, blocks[0]},
      {"list of arenas that breaks off", SyntheticHeap::kFurtherArena + layout::kArenaNext, 0},
      {"fast bin into nowhere", mainArena + layout::kArenaFastBins, 0x10},
      {"fast bin that is a ring", mainArena + layout::kArenaFastBins, further - 16},
      {"heap larger than it can be", SyntheticHeap::kFurtherHeap + layout::kHeapSize, ~Address{0}},
      {"heap of another arena", SyntheticHeap::kFurtherHeap, mainArena},
      {"bins of a further arena", SyntheticHeap::kFurtherArena + layout::kArenaBins, 0x10},
  };
  heap.set(further, (further - 16) ^ (further >> 12));
  for (const auto& fault : kFaults) {
    const std::uint64_t before = heap.get(fault.at);
    heap.set(fault.at, fault.value);
    EXPECT_EQ(analysisOf(heap).failure.kind, HeapFailure::Kind::inconsistent) << fault.what;
    heap.set(fault.at, before);
  }
  EXPECT_EQ(analysisOf(heap).failure.reason, "");
}

TEST_F(HeapAnalysis, PassesAgreeOnWhatBothFound) {
  Analysis first;
  Analysis second;
  first.leaked = {{0x10, 24, true, 0, 0}, {0x30, 24, true, 0, 0}, {0x50, 24, true, 0, 0}};
  second.leaked = {{0x30, 40, true, 0, 0}, {0x50, 24, true, 0, 0}, {0x70, 24, true, 0, 0}};
  const auto both = leaks::agreed(first, second).leaked;
  ASSERT_EQ(both.size(), 1u);
  EXPECT_EQ(both[0].address, 0x50u);
}

// The monitor's address table of ten buckets and its entries.
TEST_F(HeapAnalysis, StacksAreThoseThatWereRecordedForTheBlock) {
  constexpr Address kRegion = SyntheticHeap::kApart;
  constexpr Address kTable = kRegion + qbv::linux_backend::kOwnRegionBlock;
  const Address known = heap.allocate(64);
  const Address other = heap.allocate(64);
  const auto store = [&](Address block, Address size) {
    const auto snapshot = heap.snapshot();
    return leaks::StackStore(leaks::Memory(snapshot), 10).stackOf(block, size);
  };
  EXPECT_FALSE(store(known, 56).has_value()) << "no table";
  heap.set(kRegion, qbv::linux_backend::ownRegionMark(kRegion));
  heap.set(kRegion + 8, 0x1000);
  heap.set(kRegion + 16, 10 * 8);
  const Address nodes[] = {kRegion + 0x400, kRegion + 0x440};
  heap.set(kTable + known % 9 * 8, nodes[0]);
  heap.set(nodes[0] + 16, 0x1230);
  heap.set(nodes[0] + 24, nodes[1]);
  heap.set(nodes[1], 0xabc);
  heap.set(nodes[1] + 8, 50);
  heap.set(nodes[1] + 16, known);
  EXPECT_EQ(store(known, 56), 0xabcU);
  EXPECT_FALSE(store(known, 40).has_value()) << "the block that was recorded was larger";
  EXPECT_FALSE(store(known, 9000).has_value()) << "and smaller than this";
  EXPECT_FALSE(store(other, 56).has_value());
  heap.set(nodes[1] + 16, 0x4560);
  heap.set(nodes[1] + 24, nodes[0]);
  EXPECT_FALSE(store(known, 56).has_value()) << "a ring";
  heap.set(nodes[1] + 24, 0x10);
  EXPECT_FALSE(store(known, 56).has_value()) << "a link to nowhere";
}

TEST_F(HeapAnalysis, TheReportShowsKindsAndContentAndStaysShort) {
  for (int i = 0; i < 300; ++i) heap.allocate(48);
  const Address object = heap.allocate(64);
  heap.set(object, SyntheticHeap::kLibrary + 0x1238);
  heap.set(object + 8, 0x0a216f6c6c6548);
  leaks::LeakReport report;
  report.analysis = analysisOf(heap);
  const auto snapshot = heap.snapshot();
  std::string text = leaks::renderLeaks(report, snapshot);
  EXPECT_THAT(text, HasSubstr("\n301 leaks for 12056 total leaked bytes.\n"));
  EXPECT_THAT(text, HasSubstr("       300          12000           40        300  \n"));
  EXPECT_THAT(text, HasSubstr("         1             56           56          1  libc.so.6+0x1238\n"));
  EXPECT_THAT(text,
              HasSubstr("  56 bytes  libc.so.6+0x1238\n"
                        "    0000  38 12 00 00 00 7f 00 00 48 65 6c 6c 6f 21 0a 00  |8.......Hello!..|\n"));
  EXPECT_THAT(text, HasSubstr("... and 201 more roots\n"));
  EXPECT_LT(std::count(text.begin(), text.end(), '\n'), 400);
  report.isWhole = true;
  report.nameOf = [](Address address) {
    return address == SyntheticHeap::kLibrary + 0x1238 ? "vtable for Thing" : "";
  };
  text = leaks::renderLeaks(report, snapshot);
  EXPECT_THAT(text, HasSubstr("  56 bytes  libc.so.6+0x1238  vtable for Thing\n"));
  EXPECT_EQ(text.find("more roots"), std::string::npos);
  report.analysis.leaked.clear();
  EXPECT_THAT(leaks::renderLeaks(report, snapshot), HasSubstr("\n0 leaks for 0 total leaked bytes.\n"));
}

}  // namespace
