// The chain of frame records of another thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/task.h"

namespace qbv {

inline constexpr std::size_t maximumFrames = 100;

// Code addresses, innermost first, without authentication and tag bits.
struct AddressList {
  std::array<std::uint64_t, maximumFrames> addresses;
  std::size_t count;
};

// The addresses of a thread with these registers: program counter, link register unless 0, then the return
// addresses of its frame records. The outermost record, the one without a predecessor, is not part of the
// list. A record that cannot be read ends it. False when not even the first can be. Suspends the thread while
// it reads, and resumes it on every path; allocates nothing, takes no lock.
bool walkStack(Task& task, ThreadPort thread, const ThreadState& state, AddressList& list);

}  // namespace qbv
