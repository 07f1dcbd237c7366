// Which blocks a program can still reach.
#pragma once

#include <vector>

#include "tools/leaks/heap_roots.h"

namespace leaks {

struct LeakedBlock {
  Address address = 0;        // as the program got it
  Address size = 0;           // that the program may use
  bool isRoot = false;        // no other leaked block points to it, or it leads a ring of blocks that do
  std::size_t contained = 0;  // of a root: leaked blocks that are reached only through it, without itself
  Address containedBytes = 0;
};

// Sets Chunk::reached. Any word that points into a block reaches it.
void mark(const Memory& memory, const Roots& roots, Heap& heap);
// The blocks in use that were not reached, ascending.
std::vector<LeakedBlock> leakedBlocks(const Memory& memory, const Heap& heap);

}  // namespace leaks
