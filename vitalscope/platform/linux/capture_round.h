// Capturing the call chains of many threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/frame_records.h"
#include "vitalscope/platform/task.h"

namespace qbv::linux_backend {

struct CapturedThread {
  std::uint32_t thread = 0;
  KernReturn outcome = KERN_FAILURE;
  CallChain chain;
};

inline constexpr std::size_t kFirstCopy = 16 * 1024;

// Fills in outcome and chain of each thread of the list (not the calling one). Threads that wait in the
// kernel are read as they stand. One that waits in a call that a signal would cut short is never signalled;
// of its chain the frames are kept that are sure. Running threads are watched first, so that hardly one is
// signalled on its way into a wait; all that have worked for 5 ms of CPU time without a pause are signalled,
// as far as the slots go, and collected afterwards. A thread that gets no processor for a second, one that
// does not answer within another second (20 ms more for every other one), one that runs with the signal
// blocked for 50 ms, and one that has ended fail. The scratch area is the caller's alone. Any number of
// threads may call this at once; not in signal handlers; nothing from the heap.
void captureThreads(std::span<CapturedThread> threads, std::span<std::byte, kFirstCopy> scratch);

}  // namespace qbv::linux_backend
