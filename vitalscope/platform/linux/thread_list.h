// The threads of the own process.
#pragma once

#include "vitalscope/platform/task.h"

namespace qbv::linux_backend {

// All threads in the kernel's order, in pages of their own of exactly count ports (null for none); the caller
// unmaps them. Any thread, nothing from the heap. KERN_FAILURE when the kernel cannot be asked.
KernReturn listThreads(ThreadPort** list, std::uint32_t* count);

// Bytes rounded up to whole pages.
std::size_t wholePages(std::size_t bytes);

}  // namespace qbv::linux_backend
