#include "tools/leaks/analysis.h"

#include <algorithm>

namespace leaks {

namespace {

HeapTotals totalsOf(const Heap& heap) {
  HeapTotals totals;
  totals.arenas = heap.arenas.size();
  for (const Chunk& chunk : heap.chunks) {
    if (!chunk.inUse) continue;
    ++totals.blocks;
    totals.bytes += chunk.contentSize();
    totals.mappedBlocks += chunk.isMapped ? 1 : 0;
  }
  return totals;
}

}  // namespace

Analysis analyse(const Snapshot& snapshot) {
  const Memory memory(snapshot);
  Heap heap;
  Analysis analysis;
  analysis.failure = readHeap(memory, heap);
  if (analysis.failure) return analysis;
  mark(memory, findRoots(memory, heap), heap);
  analysis.totals = totalsOf(heap);
  analysis.leaked = leakedBlocks(memory, heap);
  return analysis;
}

Analysis agreed(const Analysis& first, Analysis second) {
  std::erase_if(second.leaked, [&](const LeakedBlock& block) {
    const auto same =
        std::lower_bound(first.leaked.begin(), first.leaked.end(), block.address,
                         [](const LeakedBlock& other, Address address) { return other.address < address; });
    return same == first.leaked.end() || same->address != block.address || same->size != block.size;
  });
  return second;
}

}  // namespace leaks
