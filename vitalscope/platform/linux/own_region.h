// Memory of this library that holds words of the program's without keeping what they point to: addresses of
// its blocks, copies of its stacks.
#pragma once

#include <cstdint>

namespace qbv::linux_backend {

// Stands at the begin of such memory, at a page's begin. Whoever looks from outside for blocks that nothing
// points to passes over the whole of it; names of mappings, which say the same, are not there on every
// kernel.
struct OwnRegion {
  std::uint64_t mark;       // ownRegionMark of its own address: a copy elsewhere is none
  std::uint64_t size;       // bytes, these included; whole pages
  std::uint64_t block = 0;  // bytes of the one block of a private zone that is all there is here, or 0
};
inline constexpr std::uint64_t kOwnRegionBlock = 64;  // where that block begins

constexpr std::uint64_t ownRegionMark(std::uint64_t address) {
  return std::uint64_t{0x51B5A5E9D0C3F27E} ^ address;
}

inline OwnRegion ownRegionAt(const void* address, std::uint64_t size, std::uint64_t block = 0) {
  return {ownRegionMark(reinterpret_cast<std::uintptr_t>(address)), size, block};
}

}  // namespace qbv::linux_backend
