// Counts what a test program takes from the heap.
#pragma once

namespace qbv {

// Uses of operator new in this process so far.
int allocationCount();

}  // namespace qbv
