#include "tools/leaks/heap_distances.h"

namespace leaks {

namespace {

constexpr Address kStructureSize = 24;          // of either
constexpr Address kMostSpare = 16;              // the allocator splits off no less than 32 bytes
constexpr Address kElementSize = 16;            // a pattern's: what it is, and a pointer to its values
constexpr Address kLeafSize = 32;               // a character set's: 256 bits
constexpr std::uint64_t kMostMembers = 0x1100;  // leaves for every character there is

bool isBlockOf(const Heap& heap, Address address, Address size) {
  const std::size_t index = heap.chunkAt(address);
  if (index == Heap::npos) return false;
  const Chunk& chunk = heap.chunks[index];
  return chunk.inUse && chunk.content() == address && chunk.contentSize() >= size;
}

// The leaves stand at distances from the list of them.
std::vector<Address> characterSet(const Memory& memory, const Heap& heap, Address leaves, Address numbers,
                                  std::uint64_t count) {
  if (!isBlockOf(heap, leaves, count * 8) || !isBlockOf(heap, numbers, count * 2)) return {};
  std::vector<Address> targets{leaves, numbers};
  for (std::uint64_t i = 0; i < count; ++i) {
    const Address leaf = leaves + memory.word(leaves + i * 8).value_or(0);
    if (!isBlockOf(heap, leaf, kLeafSize)) return {};
    targets.push_back(leaf);
  }
  return targets;
}

}  // namespace

std::vector<Address> distantTargets(const Memory& memory, const Heap& heap, const Chunk& chunk) {
  if (chunk.contentSize() < kStructureSize || chunk.contentSize() > kStructureSize + kMostSpare) return {};
  const Address block = chunk.content();
  const std::uint64_t counts = memory.word(block).value_or(0);
  const std::uint64_t first = counts & 0xffffffff;
  const std::uint64_t second = counts >> 32;
  if (second == 0 || second > kMostMembers) return {};
  const Address target = block + memory.word(block + 8).value_or(0);
  // A pattern: members, room for members, distance of the members.
  if (first <= second && isBlockOf(heap, target, second * kElementSize)) return {target};
  // A character set: users, leaves, distances of the list of leaves and of their numbers.
  return characterSet(memory, heap, target, block + memory.word(block + 16).value_or(0), second);
}

}  // namespace leaks
