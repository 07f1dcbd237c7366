#include "tests/tools/synthetic_heap.h"

#include <cstdlib>
#include <cstring>

namespace leaks {

namespace {

using namespace layout;

constexpr Address kHeapBytes = 0x8000;
constexpr Address kMappedBytes = 0x3000;
constexpr Address kFirstOfFurther = SyntheticHeap::kFurtherHeap + 0x8d0;

}  // namespace

SyntheticHeap::SyntheticHeap() {
  addArea(kVariables, 0x1000, "/usr/bin/app", false);
  addArea(kMainHeap, kHeapBytes, "[heap]", true);
  addArea(kApart, 0x4000, "", true);
  addArea(kMapped, kMappedBytes, "", true);
  addArea(kFurtherHeap, kHeapBytes, "", true);
  addArea(kLibrary, 0x2000, "/usr/lib/libc.so.6", false);
  addStack(kDeadStack);
  addStack(kLiveStack);
  makeArena(kMainArena, kFurtherArena, kMainHeap, kHeapBytes);
  set(kMainHeap + 8, kHeapBytes | kPreviousInUse);
  makeArena(kFurtherArena, kMainArena, kFirstOfFurther, kHeapBytes);
  set(kFurtherHeap, kFurtherArena);
  set(kFurtherHeap + kHeapSize, kHeapBytes);
  set(kFirstOfFurther + 8, (kFurtherHeap + kHeapBytes - kFirstOfFurther) | kPreviousInUse);
  set(kMapped + 8, kMappedBytes | layout::kMapped);
}

void SyntheticHeap::addArea(Address begin, Address size, const std::string& name, bool isAnonymous) {
  Area& area = areas_[begin];
  area.mapping = {{begin, begin + size}, true, true, false, isAnonymous, name};
  area.bytes.resize(static_cast<std::size_t>(size));
}

void SyntheticHeap::addStack(Address begin) {
  constexpr Address kGuard = 0x1000;
  addArea(begin, kGuard, "", true);
  areas_[begin].mapping.readable = areas_[begin].mapping.writable = false;
  areas_[begin].bytes.clear();
  addArea(begin + kGuard, kStackSize - kGuard, "", true);
  const Address descriptor = begin + kDescriptorOffset;
  set(descriptor, descriptor);
  set(descriptor + 16, descriptor);
  set(descriptor + 0x690, begin);
  set(descriptor + 0x698, kStackSize);
}

void SyntheticHeap::makeArena(Address arena, Address next, Address top, Address bytes) {
  for (std::size_t bin = 0; bin < kBins; ++bin) {
    const Address links = arena + kArenaBins + bin * 16;
    set(links, links - kHeader);
    set(links + 8, links - kHeader);
  }
  set(arena + kArenaTop, top);
  set(arena + kArenaNext, next);
  set(arena + kArenaSystemBytes, bytes);
}

Address SyntheticHeap::allocate(Address chunkSize, Address arena) {
  const Address chunk = get(arena + kArenaTop);
  const Address rest = (get(chunk + 8) & ~kFlags) - chunkSize;
  set(chunk + 8, chunkSize | kPreviousInUse | (arena == kMainArena ? 0 : kOtherArena));
  set(chunk + chunkSize + 8, rest | kPreviousInUse);
  set(arena + kArenaTop, chunk + chunkSize);
  return chunk + kHeader;
}

void SyntheticHeap::putIntoBin(Address block) {
  const Address chunk = block - kHeader;
  const Address bin = kMainArena + kArenaBins - kHeader;  // the one of unsorted chunks
  const Address first = get(bin + kHeader);
  set(block, first);
  set(block + 8, bin);
  set(first + kHeader + 8, chunk);
  set(bin + kHeader, chunk);
  const Address size = get(chunk + 8) & ~kFlags;
  set(chunk + size, size);
  set(chunk + size + 8, get(chunk + size + 8) & ~kPreviousInUse);
}

void SyntheticHeap::putIntoFastBin(const std::vector<Address>& blocks) {
  Address next = 0;
  for (const Address block : blocks) {
    set(block, next ^ (block >> 12));
    next = block - kHeader;
  }
  set(kMainArena + kArenaFastBins, next);
}

void SyntheticHeap::putIntoCache(Address cache, const std::vector<Address>& blocks) {
  Address next = 0;
  for (const Address block : blocks) {
    set(block, next ^ (block >> 12));
    next = block;
  }
  const Address list = ((get(blocks.back() - 8) & ~kFlags) - kSmallestChunk) / kAlignment;
  std::uint16_t count = static_cast<std::uint16_t>(blocks.size());
  std::memcpy(at(cache + list * 2), &count, sizeof count);
  set(cache + 128 + list * 8, next);
}

std::byte* SyntheticHeap::at(Address address) const {
  const auto behind = areas_.upper_bound(address);
  if (behind == areas_.begin()) std::abort();
  Area& area = std::prev(behind)->second;
  const auto offset = static_cast<std::size_t>(address - std::prev(behind)->first);
  if (offset + sizeof(std::uint64_t) > area.bytes.size()) std::abort();
  return area.bytes.data() + offset;
}

void SyntheticHeap::set(Address address, std::uint64_t value) {
  std::memcpy(at(address), &value, sizeof value);
}

std::uint64_t SyntheticHeap::get(Address address) const {
  std::uint64_t value;
  std::memcpy(&value, at(address), sizeof value);
  return value;
}

Snapshot SyntheticHeap::snapshot() const {
  Snapshot snapshot;
  for (const auto& [begin, area] : areas_) {
    snapshot.mappings.push_back(area.mapping);
    if (!area.bytes.empty()) snapshot.pieces.push_back({begin, area.bytes.data(), area.bytes.size()});
  }
  snapshot.libraryData = {{kLibrary, kLibrary + 0x2000}};
  snapshot.threads = {{1, kStackPointer, kLiveStack + kDescriptorOffset, registers}};
  return snapshot;
}

}  // namespace leaks
