#include <algorithm>

#include "tools/leaks/heap.h"

namespace leaks {

namespace {

using namespace layout;

// Where the allocator's own stretch that holds the address ends; the address itself when none does.
Address endOfOwned(const std::vector<Range>& ascending, Address address) {
  const auto behind = std::upper_bound(ascending.begin(), ascending.end(), address,
                                       [](Address a, const Range& range) { return a < range.begin; });
  if (behind == ascending.begin() || !std::prev(behind)->holds(address)) return address;
  return std::prev(behind)->end;
}

bool mayHoldMappedChunks(const Mapping* mapping) {
  return mapping != nullptr && mapping->anonymous && mapping->writable && !mapping->shared &&
         mapping->name.empty();
}

// Size of the mapping that a chunk's header at a page's begin describes; 0 when there is none.
Address mappedSize(const Memory& memory, Address page, Address end) {
  const std::size_t pageSize = memory.snapshot().pageSize;
  const auto before = memory.word(page);
  const auto head = memory.word(page + 8);
  if (!before || !head || *before != 0 || (*head & kFlags) != kMapped) return 0;
  const Address size = *head & ~kFlags;
  return size % pageSize == 0 && size <= end - page ? size : 0;
}

// A chunk aligned to more than sixteen bytes begins later in its mapping; its header says where, and is the
// one that is kept up to date.
Chunk chunkIn(const Memory& memory, Address page, Address size) {
  for (Address alignment = 64; alignment <= memory.snapshot().pageSize; alignment *= 2) {
    const Address lead = alignment - kHeader;
    const auto head = memory.word(page + lead + 8);
    if (memory.word(page + lead) == lead && head == ((size - lead) | kMapped))
      return {page + lead, size - lead, true, true, false};
  }
  return {page, size, true, true, false};
}

}  // namespace

void findMappedChunks(const Memory& memory, Heap& heap) {
  const Snapshot& snapshot = memory.snapshot();
  std::vector<Range> walked = heap.owned;
  std::sort(walked.begin(), walked.end(), [](const Range& a, const Range& b) { return a.begin < b.begin; });
  Address free = 0;  // what lies below belongs to a chunk already found, which may span several pieces
  for (const Piece& piece : snapshot.pieces) {
    const Mapping* const mapping = memory.mappingOf(piece.begin);
    if (!mayHoldMappedChunks(mapping)) continue;
    for (Address page = std::max(piece.begin, free); page < piece.begin + piece.size;) {
      free = endOfOwned(walked, page);
      const Address size = free == page ? mappedSize(memory, page, mapping->range.end) : 0;
      if (size != 0) {
        const Chunk chunk = chunkIn(memory, page, size);
        heap.add({{chunk.begin, chunk.begin + chunk.size}, 0, 0}, {chunk});
        heap.owned.push_back({page, page + size});
        free = page + size;
      }
      page = free > page ? free : page + snapshot.pageSize;
    }
  }
}

}  // namespace leaks
