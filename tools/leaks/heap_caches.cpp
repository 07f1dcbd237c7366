#include "tools/leaks/heap.h"

namespace leaks {

namespace {

using namespace layout;

// A thread's cache is a block of its own: 64 counts of two bytes, then 64 heads of lists.
constexpr Address kCacheChunk = 0x290;
constexpr std::size_t kCacheLists = 64;
constexpr Address kCacheHeads = kCacheLists * 2;

// Links in caches and fast bins are stored xor-ed with the page number of the place they are stored at.
std::optional<Address> followLink(const Memory& memory, Address place) {
  const auto stored = memory.word(place);
  if (!stored) return std::nullopt;
  return *stored ^ (place >> 12);
}

// The chunks of one list of a cache; nothing when it is not one. A thread stopped between taking a block and
// counting it leaves the count off by one.
std::optional<std::vector<std::size_t>> cacheList(const Memory& memory, const Heap& heap, Address head,
                                                  std::size_t count, Address chunkSize) {
  std::vector<std::size_t> found;
  for (Address at = head; at != 0;) {
    if (at % kAlignment != 0 || found.size() > count) return std::nullopt;
    const std::size_t index = heap.chunkWithHeaderAt(at - kHeader);
    if (index == Heap::npos || heap.chunks[index].size != chunkSize) return std::nullopt;
    found.push_back(index);
    const auto next = followLink(memory, at);
    if (!next) return std::nullopt;
    at = *next;
  }
  if (found.size() + 1 < count) return std::nullopt;
  return found;
}

std::optional<std::vector<std::size_t>> cachedChunks(const Memory& memory, const Heap& heap, Address cache) {
  std::vector<std::size_t> all;
  std::size_t wrongCounts = 0;
  for (std::size_t list = 0; list < kCacheLists; ++list) {
    const auto counts = memory.half(cache + (list & ~std::size_t{1}) * 2);
    const auto head = memory.word(cache + kCacheHeads + list * 8);
    if (!counts || !head) return std::nullopt;
    const std::size_t count = (list % 2 == 0 ? *counts : *counts >> 16) & 0xffff;
    const auto found = cacheList(memory, heap, *head, count, kSmallestChunk + list * kAlignment);
    if (!found) return std::nullopt;
    if (found->size() != count && ++wrongCounts > 1) return std::nullopt;
    all.insert(all.end(), found->begin(), found->end());
  }
  return all;
}

}  // namespace

HeapFailure releaseFastBins(const Memory& memory, Heap& heap) {
  for (const Arena& arena : heap.arenas) {
    for (std::size_t bin = 0; bin < kFastBins; ++bin) {
      auto at = memory.word(arena.address + kArenaFastBins + bin * 8);
      while (at && *at != 0) {
        const std::size_t index = heap.chunkWithHeaderAt(*at);
        if (index == Heap::npos || !heap.chunks[index].inUse)
          return {HeapFailure::Kind::inconsistent,
                  "the heap's layout is not recognised: a fast bin is broken"};
        heap.chunks[index].inUse = false;  // so that a ring ends as well
        at = followLink(memory, *at + kHeader);
      }
    }
  }
  return {};
}

void releaseThreadCaches(const Memory& memory, Heap& heap) {
  for (const Chunk& chunk : heap.chunks) {
    if (chunk.size != kCacheChunk || !chunk.inUse || chunk.isMapped) continue;
    const auto cached = cachedChunks(memory, heap, chunk.content());
    if (!cached) continue;
    for (const std::size_t index : *cached) heap.chunks[index].inUse = false;
  }
}

}  // namespace leaks
