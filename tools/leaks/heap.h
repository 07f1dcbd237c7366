// The blocks of a C library heap, found in a snapshot without symbols.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/leaks/snapshot.h"

namespace leaks {

// Sizes and offsets of the allocator's structures, equal in versions 2.32 to 2.41 on 64-bit machines.
namespace layout {
constexpr Address kHeader = 16;  // size of the previous chunk, own size with three flag bits
constexpr Address kAlignment = 16;
constexpr Address kSmallestChunk = 32;
constexpr std::uint64_t kPreviousInUse = 1;
constexpr std::uint64_t kMapped = 2;
constexpr std::uint64_t kOtherArena = 4;
constexpr std::uint64_t kFlags = 7;
constexpr Address kHeapSpan = Address{64} << 20;  // further arenas' heaps begin at multiples of this

constexpr Address kArenaLock = 0;
constexpr Address kArenaFlags = 4;
constexpr std::uint32_t kNotContiguous = 2;
constexpr Address kArenaFastBins = 16;
constexpr std::size_t kFastBins = 10;
constexpr Address kArenaTop = 96;
constexpr Address kArenaBins = 112;
constexpr std::size_t kBins = 127;
constexpr Address kArenaNext = 2160;
constexpr Address kArenaSystemBytes = 2184;
constexpr Address kArenaSize = 2200;

constexpr Address kHeapPrevious = 8;
constexpr Address kHeapSize = 16;
}  // namespace layout

struct Arena {
  Address address = 0;
  Address top = 0;
  Address systemBytes = 0;
  bool isMain = false;
  bool isContiguous = true;
  bool isLocked = false;
  bool isUsed = false;  // false: no block was ever taken from it
};

struct Chunk {
  Address begin = 0;  // of the header
  Address size = 0;   // header included
  bool inUse = false;
  bool isMapped = false;
  bool reached = false;

  Address content() const { return begin + layout::kHeader; }
  // What the program may use: of a chunk in the heap up to the next one's size field.
  Address contentEnd() const { return begin + size + (isMapped ? 0 : layout::kHeader / 2); }
  Address contentSize() const { return contentEnd() - content(); }
};

// Consecutive chunks, each beginning where the one before ends.
struct Region {
  Range range;
  std::size_t firstChunk = 0;
  std::size_t chunks = 0;
};

class Heap {
 public:
  // Index of the chunk whose content holds the address; npos for headers, tops and everything else. A pointer
  // exactly to the next chunk's header is no pointer into this one: the allocator's stale links look like
  // that.
  std::size_t chunkAt(Address address) const;
  // Index of the chunk whose header begins there, or npos.
  std::size_t chunkWithHeaderAt(Address address) const;

  void add(Region region, const std::vector<Chunk>& chunks);
  // Must be called after the last add and before the look-ups.
  void index();

  static constexpr std::size_t npos = static_cast<std::size_t>(-1);
  std::vector<Chunk> chunks;
  std::vector<Region> regions;  // ascending after index()
  std::vector<Range> owned;     // address space that is the allocator's own and holds no roots
  std::vector<Arena> arenas;

 private:
  std::size_t chunkHolding(Address address) const;

  // Of a region: which of its chunks holds the first byte of every step, so that a search is short.
  struct Steps {
    Address size = 0;
    std::vector<std::size_t> chunks;
  };
  std::vector<Steps> steps_;
};

struct HeapFailure {
  enum class Kind { none, noHeap, inconsistent };
  Kind kind = Kind::none;
  std::string reason;  // a sentence

  explicit operator bool() const { return kind != Kind::none; }
};

// Where the main arena is, by the shape of its bins; 0 when nowhere.
Address findMainArena(const Memory& memory);
// The same from the library's variables alone, without the heap they point to: good enough to look at locks.
Address likelyMainArena(const Piece& libraryData);
// The arenas, main one first. Fails when a list or a heap header is not as it must be.
HeapFailure readArenas(const Memory& memory, Address mainArena, std::vector<Arena>& arenas);
// Adds the chunks of the arena. Fails when they do not lead from the heap's begin exactly to its end.
HeapFailure walkArena(const Memory& memory, const Arena& arena, Heap& heap);
// Adds the chunks that have a mapping of their own.
void findMappedChunks(const Memory& memory, Heap& heap);
// Chunks that wait in fast bins and in threads' caches count as free. Fails on a broken fast bin.
HeapFailure releaseFastBins(const Memory& memory, Heap& heap);
void releaseThreadCaches(const Memory& memory, Heap& heap);

// All of the above. `heap` is usable only when nothing failed.
HeapFailure readHeap(const Memory& memory, Heap& heap);

}  // namespace leaks
