#include "tools/leaks/heap_reach.h"

#include <algorithm>
#include <unordered_map>

#include "tools/leaks/heap_distances.h"

namespace leaks {

namespace {

// Calls `take` with every word of the block's content that may lead to others, and with what it means by
// distances.
template <class Take>
void forEachPointer(const Memory& memory, const Heap& heap, const Chunk& chunk, Take take) {
  memory.forEachWord({chunk.content(), chunk.contentEnd()}, [&](Address, std::uint64_t word) { take(word); });
  for (const Address target : distantTargets(memory, heap, chunk)) take(target);
}

class Marker {
 public:
  Marker(const Memory& memory, Heap& heap) : memory_(memory), heap_(heap) {
    if (heap.regions.empty()) return;
    lowest_ = heap.regions.front().range.begin;
    for (const Region& region : heap.regions) highest_ = std::max(highest_, region.range.end);
    highest_ += layout::kHeader;
  }

  void take(std::uint64_t word) {
    if (word < lowest_ || word >= highest_) return;
    const std::size_t index = heap_.chunkAt(word);
    if (index == Heap::npos || !heap_.chunks[index].inUse || heap_.chunks[index].reached) return;
    heap_.chunks[index].reached = true;
    pending_.push_back(index);
  }

  void follow() {
    while (!pending_.empty()) {
      const Chunk& chunk = heap_.chunks[pending_.back()];
      pending_.pop_back();
      forEachPointer(memory_, heap_, chunk, [this](std::uint64_t word) { take(word); });
    }
  }

 private:
  const Memory& memory_;
  Heap& heap_;
  Address lowest_ = 0;
  Address highest_ = 0;
  std::vector<std::size_t> pending_;
};

// Leaked blocks by their places in a list, and who points to whom among them.
class LeakGraph {
 public:
  LeakGraph(const Memory& memory, const Heap& heap) : memory_(memory), heap_(heap) {
    for (std::size_t i = 0; i < heap.chunks.size(); ++i)
      if (heap.chunks[i].inUse && !heap.chunks[i].reached) chunks_.push_back(i);
    for (std::size_t place = 0; place < chunks_.size(); ++place) placeOf_[chunks_[place]] = place;
  }

  const std::vector<std::size_t>& chunks() const { return chunks_; }

  std::vector<bool> pointedTo() const {
    std::vector<bool> result(chunks_.size());
    for (std::size_t place = 0; place < chunks_.size(); ++place)
      forEachTarget(place, [&](std::size_t target) { result[target] = result[target] || target != place; });
    return result;
  }

  // Claims everything unclaimed that the root leads to.
  void claim(std::size_t root, std::vector<bool>& claimed, LeakedBlock& block) const {
    claimed[root] = true;
    block.isRoot = true;
    std::vector<std::size_t> pending{root};
    while (!pending.empty()) {
      const std::size_t place = pending.back();
      pending.pop_back();
      forEachTarget(place, [&](std::size_t target) {
        if (claimed[target]) return;
        claimed[target] = true;
        ++block.contained;
        block.containedBytes += heap_.chunks[chunks_[target]].contentSize();
        pending.push_back(target);
      });
    }
  }

 private:
  template <class Take>
  void forEachTarget(std::size_t place, Take take) const {
    forEachPointer(memory_, heap_, heap_.chunks[chunks_[place]], [&](std::uint64_t word) {
      const std::size_t index = heap_.chunkAt(word);
      if (index == Heap::npos) return;
      if (const auto found = placeOf_.find(index); found != placeOf_.end()) take(found->second);
    });
  }

  const Memory& memory_;
  const Heap& heap_;
  std::vector<std::size_t> chunks_;
  std::unordered_map<std::size_t, std::size_t> placeOf_;
};

}  // namespace

void mark(const Memory& memory, const Roots& roots, Heap& heap) {
  Marker marker(memory, heap);
  for (const std::uint64_t word : roots.words) marker.take(word);
  for (const Range& range : roots.ranges) {
    memory.forEachWord(range, [&](Address, std::uint64_t word) { marker.take(word); });
    marker.follow();
  }
  marker.follow();
}

std::vector<LeakedBlock> leakedBlocks(const Memory& memory, const Heap& heap) {
  const LeakGraph graph(memory, heap);
  std::vector<LeakedBlock> blocks;
  for (const std::size_t index : graph.chunks())
    blocks.push_back({heap.chunks[index].content(), heap.chunks[index].contentSize(), false, 0, 0});
  const std::vector<bool> pointedTo = graph.pointedTo();
  std::vector<bool> claimed(blocks.size());
  for (std::size_t place = 0; place < blocks.size(); ++place)
    if (!pointedTo[place]) graph.claim(place, claimed, blocks[place]);
  // What is left are rings: blocks that only point to each other.
  for (std::size_t place = 0; place < blocks.size(); ++place)
    if (!claimed[place]) graph.claim(place, claimed, blocks[place]);
  std::sort(blocks.begin(), blocks.end(),
            [](const LeakedBlock& a, const LeakedBlock& b) { return a.address < b.address; });
  return blocks;
}

}  // namespace leaks
