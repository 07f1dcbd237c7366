// A process's memory made by hand: two arenas, a mapped block, variables and two threads' stacks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/leaks/heap.h"

namespace leaks {

class SyntheticHeap {
 public:
  static constexpr Address kVariables = 0x550000000000;  // the program's; one page
  static constexpr Address kMainHeap = 0x560000000000;
  static constexpr Address kApart = 0x7a0000000000;      // anonymous memory outside the heap; four pages
  static constexpr Address kDeadStack = 0x7b0000000000;  // guard included; its thread has ended
  static constexpr Address kLiveStack = 0x7c0000000000;
  static constexpr Address kMapped = 0x7d0000000000;
  static constexpr Address kFurtherHeap = 0x7e0000000000;
  static constexpr Address kLibrary = 0x7f0000000000;
  static constexpr Address kMainArena = kLibrary + 0x100;
  static constexpr Address kFurtherArena = kFurtherHeap + 0x30;
  static constexpr Address kStackSize =
      0x5000;  // a page of guard, then the stack with the descriptor at its end
  static constexpr Address kDescriptorOffset = 0x4700;
  static constexpr Address kStackPointer = kLiveStack + 0x3000;

  SyntheticHeap();

  // Block of a chunk of that size at the end of the arena, in use.
  Address allocate(Address chunkSize, Address arena = kMainArena);
  // The whole mapped block's address.
  Address mappedBlock() const { return kMapped + layout::kHeader; }
  void putIntoBin(Address block);
  // In the order of a list, the last one first.
  void putIntoFastBin(const std::vector<Address>& blocks);
  void putIntoCache(Address cache, const std::vector<Address>& blocks);

  void set(Address address, std::uint64_t value);
  std::uint64_t get(Address address) const;
  // Valid as long as this object is neither changed nor destroyed.
  Snapshot snapshot() const;
  std::vector<std::uint64_t> registers;

 private:
  struct Area {
    Mapping mapping;
    std::vector<std::byte> bytes;
  };
  void addArea(Address begin, Address size, const std::string& name, bool isAnonymous);
  void addStack(Address begin);
  void makeArena(Address arena, Address next, Address top, Address bytes);
  std::byte* at(Address address) const;

  mutable std::map<Address, Area> areas_;
};

}  // namespace leaks
