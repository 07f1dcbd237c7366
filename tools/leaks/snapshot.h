// What was copied of a process: its mappings, the content of the pages that were present, its threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace leaks {

using Address = std::uint64_t;

struct Range {
  Address begin = 0;
  Address end = 0;  // exclusive

  bool holds(Address address) const { return address >= begin && address < end; }
  Address size() const { return end - begin; }
};

struct Mapping {
  Range range;
  bool readable = false;
  bool writable = false;
  bool shared = false;
  bool anonymous = false;  // not backed by a file; the named anonymous ones ("[heap]") too
  std::string name;
  Address fileOffset = 0;
};

// Content of consecutive pages; the bytes belong to whoever made the snapshot.
struct Piece {
  Address begin = 0;
  const std::byte* bytes = nullptr;
  std::size_t size = 0;
};

struct Thread {
  std::int32_t id = 0;
  Address stackPointer = 0;
  Address threadPointer = 0;             // 0 where it is not known
  std::vector<std::uint64_t> registers;  // all words that may hold a pointer
};

// A page of a readable mapping that no piece covers was never touched: it reads as zero.
struct Snapshot {
  std::vector<Mapping> mappings;  // ascending, not overlapping
  std::vector<Piece> pieces;      // ascending, not overlapping, each within one mapping
  std::vector<Thread> threads;
  std::vector<Range> libraryData;  // where the C library keeps its variables
  std::size_t pageSize = 4096;
};

// Reads the snapshot by the target's addresses. Holds a reference; one thread only. A snapshot whose lists
// are not in order yields wrong words but is never read outside its pieces.
class Memory {
 public:
  explicit Memory(const Snapshot& snapshot) : snapshot_(snapshot) {}

  // Nothing when any of the eight bytes lies outside every readable mapping.
  std::optional<std::uint64_t> word(Address address) const;
  std::optional<std::uint32_t> half(Address address) const;
  // The mapping an address lies in, or nullptr.
  const Mapping* mappingOf(Address address) const;
  // Copies what is there; bytes that cannot be read are left out at the end.
  std::vector<std::byte> bytes(Address address, std::size_t size) const;

  // Calls `take(address, word)` for every aligned word of the range that a piece covers, in ascending order.
  template <class Take>
  void forEachWord(Range range, Take take) const;

  const Snapshot& snapshot() const { return snapshot_; }

 private:
  bool copy(Address address, std::byte* to, std::size_t size) const;
  std::size_t firstPieceBehind(Address address) const;

  const Snapshot& snapshot_;
  mutable std::size_t lastPiece_ = 0;
  mutable std::size_t lastMapping_ = 0;
};

}  // namespace leaks

#include "tools/leaks/snapshot_words.h"
