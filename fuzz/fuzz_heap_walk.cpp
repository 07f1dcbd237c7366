// A heap that the program has written over must be walked without a fault, and what is found must lie inside
// it. The input overwrites words of a sound one.
#include <cstdlib>
#include <cstring>

#include "tests/tools/synthetic_heap.h"
#include "tools/leaks/analysis.h"
#include "tools/leaks/leak_report.h"

namespace {

using leaks::Address;
using leaks::SyntheticHeap;

SyntheticHeap soundHeap() {
  SyntheticHeap heap;
  std::vector<Address> blocks;
  for (int i = 0; i < 24; ++i) blocks.push_back(heap.allocate(32 + 16 * static_cast<Address>(i % 3)));
  for (int i = 0; i < 8; ++i) heap.allocate(96, SyntheticHeap::kFurtherArena);
  const Address cache = heap.allocate(0x290);
  heap.putIntoCache(cache, {blocks[0], blocks[3], blocks[6]});
  heap.putIntoFastBin({blocks[9], blocks[12]});
  heap.putIntoBin(blocks[14]);
  heap.set(SyntheticHeap::kVariables, cache);
  heap.set(blocks[1], blocks[4]);
  return heap;
}

void require(bool condition) {
  if (!condition) std::abort();
}

// Where the allocator keeps its own words, and so where changes matter most.
constexpr Address kTargets[] = {
    SyntheticHeap::kMainArena,    SyntheticHeap::kMainHeap,
    SyntheticHeap::kFurtherHeap,  SyntheticHeap::kMapped,
    SyntheticHeap::kVariables,    SyntheticHeap::kLiveStack + SyntheticHeap::kDescriptorOffset,
    SyntheticHeap::kFurtherArena, SyntheticHeap::kDeadStack + SyntheticHeap::kDescriptorOffset};

// A change: one byte for the target, two for the place in words, one that says how, eight for the value.
constexpr std::size_t kChange = 12;

void apply(SyntheticHeap& heap, const std::uint8_t* change) {
  const Address base = kTargets[change[0] % std::size(kTargets)];
  std::uint16_t place = 0;
  std::uint64_t value = 0;
  std::memcpy(&place, change + 1, sizeof place);
  std::memcpy(&value, change + 4, sizeof value);
  const Address address = base + (place % 280) * 8;
  const std::uint64_t before = heap.get(address);
  switch (change[3] % 4) {
    case 0:
      return heap.set(address, value);
    case 1:
      return heap.set(address, before + value % 256 - 128);
    case 2:
      return heap.set(address, before ^ (std::uint64_t{1} << value % 64));
    default:
      return heap.set(address, kTargets[value % std::size(kTargets)] + (value >> 8) % 0x1000);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  SyntheticHeap heap = soundHeap();
  for (std::size_t at = 0; at + kChange <= size && at < 64 * kChange; at += kChange) apply(heap, data + at);
  const leaks::Snapshot snapshot = heap.snapshot();
  leaks::LeakReport report;
  report.analysis = leaks::analyse(snapshot);
  if (report.analysis.failure) {
    require(!report.analysis.failure.reason.empty() && report.analysis.leaked.empty());
    return 0;
  }
  const leaks::Memory memory(snapshot);
  Address before = 0;
  for (const leaks::LeakedBlock& block : report.analysis.leaked) {
    require(block.address > before && block.size >= 16);
    const leaks::Mapping* const mapping = memory.mappingOf(block.address);
    require(mapping != nullptr && block.address + block.size <= mapping->range.end);
    before = block.address;
  }
  require(!leaks::renderLeaks(report, snapshot).empty());
  return 0;
}
