#include <cstring>
#include <set>

#include "tools/leaks/heap.h"

namespace leaks {

namespace {

using namespace layout;

constexpr std::size_t kMostArenas = 65536;

// A bin is the head of a ring of free chunks; it is addressed as if it were a chunk, so its links lie 16
// bytes on.
bool isBin(const Memory& memory, Address links) {
  const Address self = links - kHeader;
  const auto next = memory.word(links);
  const auto previous = memory.word(links + 8);
  if (!next || !previous || *next == 0 || *previous == 0) return false;
  if (*next == self && *previous == self) return true;
  return memory.word(*next + kHeader + 8) == self && memory.word(*previous + kHeader) == self;
}

bool hasBins(const Memory& memory, Address arena) {
  for (std::size_t bin = 0; bin < kBins; ++bin)
    if (!isBin(memory, arena + kArenaBins + bin * 16)) return false;
  return true;
}

bool isHeapOf(const Memory& memory, Address heap, Address arena) {
  return memory.word(heap) == arena;
}

bool isFurtherArena(const Memory& memory, Address arena) {
  const Address offset = arena % kHeapSpan;
  // The heap's own header before it has four words, six since version 2.35.
  return (offset == 0x20 || offset == 0x30) && isHeapOf(memory, arena - offset, arena);
}

HeapFailure broken(const char* what) {
  return {HeapFailure::Kind::inconsistent, std::string("the heap's layout is not recognised: ") + what};
}

}  // namespace

Address likelyMainArena(const Piece& data) {
  constexpr std::size_t kFewestEmptyBins = 8;
  const auto word = [&](std::size_t offset) {
    Address value;
    std::memcpy(&value, data.bytes + offset, sizeof value);
    return value;
  };
  for (std::size_t at = 0; at < data.size && data.size - at >= kArenaSize; at += 8) {
    std::size_t empty = 0;
    std::size_t bin = 0;
    for (; bin < kBins; ++bin) {
      const std::size_t links = at + kArenaBins + bin * 16;
      const Address self = data.begin + links - kHeader;
      if (word(links) == 0 || word(links) % kAlignment != 0 || word(links + 8) == 0) break;
      empty += word(links) == self && word(links + 8) == self ? 1 : 0;
    }
    if (bin == kBins && empty >= kFewestEmptyBins) return data.begin + at;
  }
  return 0;
}

Address findMainArena(const Memory& memory) {
  for (const Range& range : memory.snapshot().libraryData)
    for (Address at = range.begin; at < range.end && range.end - at >= kArenaSize; at += 8)
      if (hasBins(memory, at)) return at;
  return 0;
}

HeapFailure readArenas(const Memory& memory, Address mainArena, std::vector<Arena>& arenas) {
  std::set<Address> seen;
  for (Address at = mainArena; seen.insert(at).second;) {
    if (seen.size() > kMostArenas) return broken("the list of arenas has no end");
    const bool isMain = at == mainArena;
    if (!isMain && !isFurtherArena(memory, at)) return broken("an arena does not lie at its heap's begin");
    if (!hasBins(memory, at)) return broken("an arena's bins are broken");
    const auto lock = memory.half(at + kArenaLock);
    const auto flags = memory.half(at + kArenaFlags);
    const auto top = memory.word(at + kArenaTop);
    const auto next = memory.word(at + kArenaNext);
    const auto bytes = memory.word(at + kArenaSystemBytes);
    if (!lock || !flags || !top || !next || !bytes) return broken("an arena is cut off");
    const bool isUsed = *bytes != 0 && *top != at + kArenaBins - kHeader;
    arenas.push_back({at, *top, *bytes, isMain, (*flags & kNotContiguous) == 0, *lock != 0, isUsed});
    at = *next;
  }
  return {};
}

}  // namespace leaks
