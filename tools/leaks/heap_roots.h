// Where a program keeps the pointers that its blocks are reached by.
#pragma once

#include <vector>

#include "tools/leaks/heap.h"

namespace leaks {

struct Roots {
  std::vector<Range> ranges;         // ascending, not overlapping
  std::vector<std::uint64_t> words;  // the threads' registers
};

// Everything that was copied, without the heap itself, the unused part of the threads' stacks, the stacks of
// threads that have ended (the C library keeps them for new ones), and the monitor's own tables.
Roots findRoots(const Memory& memory, const Heap& heap);

}  // namespace leaks
