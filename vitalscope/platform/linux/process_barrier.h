// A memory barrier that one thread makes for all.
#pragma once

namespace qbv::linux_backend {

// Prepares the barrier below; false where the kernel has none. Cheap while the process has one thread, some
// milliseconds later on. Any thread.
bool prepareProcessBarrier() noexcept;

// When it returns, every other thread of the process has been between two instructions with all its earlier
// writes visible to everybody. Some microseconds. Any thread, not in signal handlers; leaves errno alone.
void processBarrier() noexcept;

}  // namespace qbv::linux_backend
