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
// kernel are read as they stand; all running ones are signalled together, as far as the slots go, and
// collected afterwards. A thread that runs and does not answer within 200 ms (5 more for every other
// signalled thread), one that runs with the signal blocked for 50 ms, and one that has ended fail. The
// scratch area is the caller's alone. Any number of threads may call this at once; not in signal handlers;
// nothing from the heap.
void captureThreads(std::span<CapturedThread> threads, std::span<std::byte, kFirstCopy> scratch);

}  // namespace qbv::linux_backend
