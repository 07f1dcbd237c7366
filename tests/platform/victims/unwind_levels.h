// Functions that each call only the next, built without frame pointers: whatever moment a snapshot is of, its
// chain must come down level by level.
#pragma once

namespace victims {

inline constexpr int kLevels = 48;

// Where each level's call of the next returns to; written by the levels themselves, always with the same
// value.
extern void* volatile gReturnsInto[kLevels];

// Calls down to the given level, does something there that depends on what (waits in the kernel, computes,
// allocates, formats), and comes back. Any number of threads.
void descend(int level, unsigned what);

}  // namespace victims
