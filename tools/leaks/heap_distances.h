// Blocks that refer to others by a distance instead of an address.
#pragma once

#include <vector>

#include "tools/leaks/heap.h"

namespace leaks {

// Addresses of what the block refers to by distances. The font library that most desktop programs use keeps
// its patterns and character sets that way, so that the same structures serve in its mapped files: hundreds
// of blocks that no plain pointer leads to. Every target must begin a block that is large enough, otherwise
// there is none: numbers that happen to lie in a block of this size are not taken for distances. Indexed
// heaps only.
std::vector<Address> distantTargets(const Memory& memory, const Heap& heap, const Chunk& chunk);

}  // namespace leaks
