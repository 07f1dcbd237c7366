#include "tools/leaks/stack_store.h"

#include <algorithm>
#include <cstddef>

#include "tools/leaks/heap.h"
#include "vitalscope/memory/QBPtrsHashmap.h"
#include "vitalscope/memory/QBStackHighSpeedLogger.h"
#include "vitalscope/platform/linux/own_region.h"

namespace leaks {

namespace {

using qbv::StackSlot;
static_assert(StackStore::kBuckets == QBBaseHashmap::kPtrsBuckets);

constexpr std::size_t kLongestChain = 10'000;
constexpr char kStackFile[] = "/stack_backtrace.mmap";

// What a program may use of a block of which it asked for so many bytes.
Address usableSize(Address asked) {
  const Address chunk = (asked + layout::kHeader / 2 + layout::kAlignment - 1) & ~(layout::kAlignment - 1);
  return std::max(chunk, layout::kSmallestChunk) - layout::kHeader / 2;
}

// Blocks with a mapping of their own are rounded up to whole pages, aligned ones may be larger by some bytes.
bool mayBe(Address size, Address asked, std::size_t pageSize) {
  return size >= asked && size <= usableSize(asked) + pageSize;
}

}  // namespace

StackStore::StackStore(const Memory& memory, std::uint64_t buckets) : memory_(memory), buckets_(buckets) {
  findTable();
  if (isThere()) findStacks();
}

void StackStore::findTable() {
  using qbv::linux_backend::OwnRegion;
  const Snapshot& snapshot = memory_.snapshot();
  for (const Piece& piece : snapshot.pieces)
    for (Address page = piece.begin; page < piece.begin + piece.size; page += snapshot.pageSize)
      if (memory_.word(page) == qbv::linux_backend::ownRegionMark(page) &&
          memory_.word(page + offsetof(OwnRegion, block)) == buckets_ * sizeof(Address))
        table_ = page + qbv::linux_backend::kOwnRegionBlock;
}

void StackStore::findStacks() {
  for (const Mapping& mapping : memory_.snapshot().mappings) {
    if (!mapping.shared || !mapping.name.ends_with(kStackFile)) continue;
    for (Address slot = mapping.range.begin; mapping.range.end - slot >= sizeof(StackSlot);
         slot += sizeof(StackSlot))
      if (memory_.half(slot + offsetof(StackSlot, count)).value_or(0) != 0)
        slots_.try_emplace(memory_.word(slot + offsetof(StackSlot, stack_id)).value_or(0), slot);
  }
}

std::optional<std::uint64_t> StackStore::stackOf(Address block, Address size) const {
  if (!isThere()) return std::nullopt;
  auto node = memory_.word(table_ + block % (buckets_ - 1) * sizeof(Address));
  for (std::size_t step = 0; node.value_or(0) != 0 && step < kLongestChain; ++step) {
    if (memory_.word(*node + offsetof(ptr_node, address)) == block) {
      const auto asked = memory_.half(*node + offsetof(ptr_node, size));
      const bool isSame = asked && mayBe(size, *asked, memory_.snapshot().pageSize);
      return isSame ? memory_.word(*node + offsetof(ptr_node, stack_id)) : std::nullopt;
    }
    node = memory_.word(*node + offsetof(ptr_node, next));
  }
  return std::nullopt;
}

std::vector<Address> StackStore::frames(std::uint64_t stackId) const {
  std::vector<Address> frames;
  const auto slot = slots_.find(stackId);
  if (slot == slots_.end()) return frames;
  const std::uint32_t depth = memory_.half(slot->second + offsetof(StackSlot, depth)).value_or(0);
  for (std::uint32_t i = 0; i < std::min<std::uint32_t>(depth, qb_stack_max_depth); ++i)
    frames.push_back(
        memory_.word(slot->second + offsetof(StackSlot, frames) + i * sizeof(Address)).value_or(0));
  return frames;
}

}  // namespace leaks
