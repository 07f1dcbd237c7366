#include <algorithm>

#include "tools/leaks/heap.h"

namespace leaks {

namespace {

using namespace layout;

constexpr Address kLongestForeignStretch = Address{64} << 20;
constexpr std::size_t kMostForeignHeads = 4096;
constexpr std::size_t kMostHeaps = 65536;

HeapFailure broken(const std::string& what) {
  return {HeapFailure::Kind::inconsistent, "the heap's layout is not recognised: " + what};
}

struct Walk {
  enum class End { broken, top, fence };
  End end = End::broken;
  Address at = 0;  // where it ended
  std::vector<Chunk> chunks;
};

// From chunk to chunk until the top or a fence: chunks too small for real ones, which close a stretch of
// memory.
Walk walk(const Memory& memory, Address begin, Address limit, Address top, bool isMain) {
  Walk result;
  Address at = begin;
  while (true) {
    result.at = at;
    if (at == top) {
      result.end = Walk::End::top;
      return result;
    }
    if (at >= limit || limit - at < kHeader) return result;
    const auto head = memory.word(at + 8);
    if (!head) return result;
    const Address size = *head & ~kFlags;
    if (size == kHeader || (size == 0 && !isMain && (*head & kPreviousInUse) != 0)) break;
    const bool isSound = size >= kSmallestChunk && size % kAlignment == 0 && (*head & kMapped) == 0 &&
                         !(isMain && (*head & kOtherArena) != 0) && size <= limit - at - kHeader;
    if (!isSound) return result;
    const auto nextHead = memory.word(at + size + 8);
    if (!nextHead) return result;
    const bool inUse = (*nextHead & kPreviousInUse) != 0;
    if (!inUse && memory.word(at + size) != size) return result;
    result.chunks.push_back({at, size, inUse, false, false});
    at += size;
  }
  // Where no room was left for a full fence, the last chunk before the end mark is one.
  const auto mark = memory.word(at + 8);
  if (mark && (*mark & ~kFlags) == 0 && !result.chunks.empty() && result.chunks.back().size == kSmallestChunk)
    result.chunks.pop_back();
  result.end = Walk::End::fence;
  return result;
}

void take(Heap& heap, Address begin, Walk& found) {
  heap.add({{begin, found.at}, 0, 0}, found.chunks);
}

// Memory that the program took from the system by itself, between two stretches of the main heap.
Address skipForeign(const Memory& memory, Address fence, Address limit, Address top) {
  const Address end = std::min(limit, fence + kLongestForeignStretch);
  std::size_t heads = 0;
  for (Address at = fence + kHeader; at < end && heads < kMostForeignHeads; at += kAlignment) {
    const auto head = memory.word(at + 8);
    if (!head || (*head & kPreviousInUse) == 0 || *head < kSmallestChunk || *head > limit - at) continue;
    ++heads;
    const Walk found = walk(memory, at, limit, top, true);
    if (found.end == Walk::End::top || (found.end == Walk::End::fence && !found.chunks.empty())) return at;
  }
  return 0;
}

HeapFailure walkMain(const Memory& memory, const Arena& arena, Heap& heap) {
  if (!arena.isContiguous) return broken("the main heap lies in several places");
  const auto topHead = memory.word(arena.top + 8);
  if (!topHead) return broken("the main heap's end cannot be read");
  const Address end = arena.top + (*topHead & ~kFlags);
  if (end <= arena.top || arena.systemBytes > end || end - arena.systemBytes > arena.top)
    return broken("the main heap's size is wrong");
  Address at = (end - arena.systemBytes + kAlignment - 1) & ~(kAlignment - 1);
  heap.owned.push_back({at, end});
  while (true) {
    Walk found = walk(memory, at, end, arena.top, true);
    if (found.end == Walk::End::broken) return broken("a chunk of the main heap is broken");
    take(heap, at, found);
    if (found.end == Walk::End::top) return {};
    at = skipForeign(memory, found.at, end, arena.top);
    if (at == 0) return broken("the main heap has no end");
  }
}

HeapFailure walkHeap(const Memory& memory, const Arena& arena, Address base, Heap& heap) {
  const auto size = memory.word(base + kHeapSize);
  const Address headerSize = arena.address % kHeapSpan;
  if (memory.word(base) != arena.address || !size || *size > kHeapSpan || *size < headerSize + kHeader)
    return broken("a heap's header is wrong");
  const bool isFirst = base == arena.address - headerSize;
  const Address used = headerSize + (isFirst ? kArenaSize : 0);
  const Address begin = base + ((used + kAlignment - 1) & ~(kAlignment - 1));
  Walk found = walk(memory, begin, base + *size, arena.top, false);
  const bool holdsTop = arena.top >= base && arena.top < base + kHeapSpan;
  if (found.end != (holdsTop ? Walk::End::top : Walk::End::fence))
    return broken("a chunk of a further heap is broken");
  take(heap, begin, found);
  heap.owned.push_back({base, base + *size});
  return {};
}

}  // namespace

HeapFailure walkArena(const Memory& memory, const Arena& arena, Heap& heap) {
  if (!arena.isUsed) return {};
  if (arena.isMain) return walkMain(memory, arena, heap);
  const Address firstHeap = arena.address - arena.address % kHeapSpan;
  Address base = arena.top - arena.top % kHeapSpan;
  for (std::size_t heaps = 0; heaps < kMostHeaps; ++heaps) {
    if (HeapFailure failure = walkHeap(memory, arena, base, heap)) return failure;
    if (base == firstHeap) return {};
    const auto previous = memory.word(base + kHeapPrevious);
    if (!previous || *previous == 0 || *previous % kHeapSpan != 0) break;
    base = *previous;
  }
  return broken("an arena's heaps do not lead to its first one");
}

}  // namespace leaks
