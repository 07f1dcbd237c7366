#include "tools/leaks/heap.h"

#include <algorithm>

namespace leaks {

namespace {

constexpr Address kSmallestStep = 1024;

}  // namespace

void Heap::add(Region region, const std::vector<Chunk>& added) {
  region.firstChunk = chunks.size();
  region.chunks = added.size();
  chunks.insert(chunks.end(), added.begin(), added.end());
  regions.push_back(region);
}

void Heap::index() {
  std::erase_if(regions, [](const Region& region) { return region.chunks == 0; });
  std::sort(regions.begin(), regions.end(),
            [](const Region& a, const Region& b) { return a.range.begin < b.range.begin; });
  steps_.clear();
  for (const Region& region : regions) {
    const Chunk* const first = &chunks[region.firstChunk];
    Steps steps{std::max(kSmallestStep, region.range.size() / region.chunks), {}};
    std::size_t current = 0;
    for (Address offset = 0; offset < region.range.size(); offset += steps.size) {
      while (current + 1 < region.chunks && first[current + 1].begin - region.range.begin <= offset)
        ++current;
      steps.chunks.push_back(current);
    }
    steps.chunks.push_back(region.chunks - 1);
    steps_.push_back(std::move(steps));
  }
}

std::size_t Heap::chunkHolding(Address address) const {
  const auto behind = std::upper_bound(regions.begin(), regions.end(), address,
                                       [](Address a, const Region& r) { return a < r.range.begin; });
  if (behind == regions.begin()) return npos;
  const Region& region = *std::prev(behind);
  if (!region.range.holds(address)) return npos;
  const Steps& steps = steps_[static_cast<std::size_t>(std::prev(behind) - regions.begin())];
  const auto step = static_cast<std::size_t>((address - region.range.begin) / steps.size);
  const auto base = chunks.begin() + static_cast<std::ptrdiff_t>(region.firstChunk);
  const auto after = std::upper_bound(base + static_cast<std::ptrdiff_t>(steps.chunks[step]),
                                      base + static_cast<std::ptrdiff_t>(steps.chunks[step + 1] + 1), address,
                                      [](Address a, const Chunk& c) { return a < c.begin; });
  if (after == base) return npos;
  return static_cast<std::size_t>(std::prev(after) - chunks.begin());
}

std::size_t Heap::chunkWithHeaderAt(Address address) const {
  const std::size_t found = chunkHolding(address);
  return found != npos && chunks[found].begin == address ? found : npos;
}

std::size_t Heap::chunkAt(Address address) const {
  const std::size_t found = chunkHolding(address);
  if (found == npos) return npos;
  const Chunk& chunk = chunks[found];
  if (address >= chunk.content() && address < chunk.begin + chunk.size) return found;
  // The last eight bytes of a chunk's content lie in the next one's header.
  const bool inTailOfPrevious = address > chunk.begin && address < chunk.begin + layout::kHeader / 2;
  if (!inTailOfPrevious || found == 0) return npos;
  const Chunk& previous = chunks[found - 1];
  return !previous.isMapped && previous.begin + previous.size == chunk.begin ? found - 1 : npos;
}

HeapFailure readHeap(const Memory& memory, Heap& heap) {
  const Address mainArena = findMainArena(memory);
  if (mainArena == 0)
    return {HeapFailure::Kind::noHeap,
            "the C library's heap is not in use: the program has another allocator"};
  if (HeapFailure failure = readArenas(memory, mainArena, heap.arenas)) return failure;
  bool isUsed = false;
  for (const Arena& arena : heap.arenas) {
    if (arena.isLocked) return {HeapFailure::Kind::inconsistent, "a thread is inside the allocator"};
    isUsed = isUsed || arena.isUsed;
    if (HeapFailure failure = walkArena(memory, arena, heap)) return failure;
  }
  if (!isUsed)
    return {HeapFailure::Kind::noHeap,
            "no block was ever taken from the C library's heap: the program has "
            "another allocator"};
  findMappedChunks(memory, heap);
  heap.index();
  if (HeapFailure failure = releaseFastBins(memory, heap)) return failure;
  releaseThreadCaches(memory, heap);
  return {};
}

}  // namespace leaks
