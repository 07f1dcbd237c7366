#include "tools/leaks/heap_roots.h"

#include <algorithm>

#include "vitalscope/platform/linux/own_region.h"

namespace leaks {

namespace {

constexpr Address kRedZone = 128;  // below the stack pointer, used by functions that call nothing

bool isEarlier(const Range& a, const Range& b) {
  return a.begin < b.begin;
}

// A thread's descriptor holds its own address twice, in the first and the third word, and is aligned to 64.
std::vector<Address> threadDescriptors(const Memory& memory) {
  std::vector<Address> found;
  for (const Mapping& mapping : memory.snapshot().mappings) {
    if (!mapping.anonymous || !mapping.writable || mapping.shared) continue;
    memory.forEachWord(mapping.range, [&](Address at, std::uint64_t value) {
      if (value == at && at % 64 == 0 && memory.word(at + 16) == at) found.push_back(at);
    });
  }
  return found;
}

// The stack that a descriptor lies at the end of: the descriptor holds where it begins, guard included, and
// its size. Where in it depends on the version, so it is sought. An empty range when it is not there: the
// first thread's stack has none.
Range stackOf(const Memory& memory, Address descriptor) {
  constexpr Address kSearched = 0x900;
  const std::size_t pageSize = memory.snapshot().pageSize;
  for (Address at = descriptor; at < descriptor + kSearched; at += 8) {
    const auto begin = memory.word(at);
    const auto size = memory.word(at + 8);
    if (!begin || !size) break;
    if (*begin == 0 || *begin % pageSize != 0 || *begin >= descriptor || *size <= descriptor - *begin)
      continue;
    const Address behind = *size - (descriptor - *begin);
    if (behind > kSearched / 2 && behind <= 4 * pageSize) return {*begin, *begin + *size};
  }
  return {};
}

// Stacks that the C library made have a guard; one that the program brought may be any memory of its own.
bool beginsWithGuard(const Memory& memory, const Range& stack) {
  const Mapping* const mapping = memory.mappingOf(stack.begin);
  return mapping == nullptr || !mapping->readable;
}

const Thread* threadWithin(const Snapshot& snapshot, const Range& stack, Address Thread::*which) {
  for (const Thread& thread : snapshot.threads)
    if (stack.holds(thread.*which)) return &thread;
  return nullptr;
}

Range unusedPart(Address begin, Address stackPointer) {
  const Address used = stackPointer - std::min(stackPointer, kRedZone);
  return {begin, std::max(begin, used)};
}

void addStacksOfDescriptors(const Memory& memory, std::vector<Range>& unused,
                            std::vector<std::uint64_t>& words) {
  const Snapshot& snapshot = memory.snapshot();
  for (const Address descriptor : threadDescriptors(memory)) {
    const Range stack = stackOf(memory, descriptor);
    if (stack.size() == 0) continue;
    const Thread* const owner = threadWithin(snapshot, {descriptor, descriptor + 1}, &Thread::threadPointer);
    if (owner == nullptr) {
      if (!beginsWithGuard(memory, stack)) continue;
      unused.push_back(stack);
      // The table of its thread-local storage is kept with the stack.
      words.push_back(memory.word(descriptor + 8).value_or(0));
    } else if (stack.holds(owner->stackPointer)) {
      unused.push_back(unusedPart(stack.begin, owner->stackPointer));
    }
  }
}

// The first thread's stack is its mapping.
void addMainStack(const Memory& memory, std::vector<Range>& unused) {
  for (const Mapping& mapping : memory.snapshot().mappings) {
    if (mapping.name != "[stack]") continue;
    if (const Thread* const thread = threadWithin(memory.snapshot(), mapping.range, &Thread::stackPointer))
      unused.push_back(unusedPart(mapping.range.begin, thread->stackPointer));
  }
}

// What the monitor in the process keeps apart: tables of addresses, copies of stacks.
void addOwnRegions(const Memory& memory, std::vector<Range>& excluded) {
  const Snapshot& snapshot = memory.snapshot();
  for (const Piece& piece : snapshot.pieces) {
    const Mapping* const mapping = memory.mappingOf(piece.begin);
    if (mapping == nullptr || !mapping->anonymous || !mapping->writable || mapping->shared) continue;
    for (Address page = piece.begin; page < piece.begin + piece.size; page += snapshot.pageSize)
      if (memory.word(page) == qbv::linux_backend::ownRegionMark(page)) {
        const Address size = memory.word(page + 8).value_or(0);
        excluded.push_back({page, page + std::min(size, mapping->range.end - page)});
      }
  }
}

// Calls `take` for the parts of the range that none of the others, which ascend, covers.
template <class Take>
void subtract(Range range, const std::vector<Range>& others, Take take) {
  auto next = std::lower_bound(others.begin(), others.end(), range.begin,
                               [](const Range& other, Address begin) { return other.end <= begin; });
  for (; next != others.end() && next->begin < range.end; ++next) {
    if (next->begin > range.begin) take(Range{range.begin, next->begin});
    range.begin = std::max(range.begin, next->end);
    if (range.begin >= range.end) return;
  }
  if (range.begin < range.end) take(range);
}

// Ascending and without overlaps.
std::vector<Range> merged(std::vector<Range> ranges) {
  std::erase_if(ranges, [](const Range& range) { return range.end <= range.begin; });
  std::sort(ranges.begin(), ranges.end(), isEarlier);
  std::vector<Range> result;
  for (const Range& range : ranges) {
    if (!result.empty() && range.begin <= result.back().end)
      result.back().end = std::max(result.back().end, range.end);
    else
      result.push_back(range);
  }
  return result;
}

}  // namespace

Roots findRoots(const Memory& memory, const Heap& heap) {
  const Snapshot& snapshot = memory.snapshot();
  Roots roots;
  std::vector<Range> excluded = heap.owned;
  addStacksOfDescriptors(memory, excluded, roots.words);
  addMainStack(memory, excluded);
  addOwnRegions(memory, excluded);
  excluded = merged(std::move(excluded));
  for (const Mapping& mapping : snapshot.mappings)
    if (mapping.readable)
      subtract(mapping.range, excluded, [&](const Range& part) { roots.ranges.push_back(part); });
  for (const Thread& thread : snapshot.threads)
    roots.words.insert(roots.words.end(), thread.registers.begin(), thread.registers.end());
  return roots;
}

}  // namespace leaks
