// From a snapshot to the blocks that its program has lost.
#pragma once

#include <vector>

#include "tools/leaks/heap_reach.h"

namespace leaks {

struct HeapTotals {
  std::size_t blocks = 0;  // in use
  Address bytes = 0;       // that the program may use of them
  std::size_t arenas = 0;
  std::size_t mappedBlocks = 0;
};

struct Analysis {
  HeapFailure failure;  // when set, nothing else is
  HeapTotals totals;
  std::vector<LeakedBlock> leaked;  // ascending
};

// A function of the snapshot alone. Takes time in proportion to it and never reads outside, whatever it
// holds.
Analysis analyse(const Snapshot& snapshot);
// The blocks of the second that the first has too: a block that was on its way while the process stood still
// is in one of them only. With the figures of the second.
Analysis agreed(const Analysis& first, Analysis second);

}  // namespace leaks
