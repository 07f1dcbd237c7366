// Who runs this code: process and thread id, cheap to ask for and right in a forked child.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qbv::linux_backend {

// Zeroed pages of our own, never given back, that a forked child finds zeroed again (on kernels before 4.14
// it finds its parent's content); null when the kernel has none. Any thread, async-signal-safe.
void* mapWipedOnFork(std::size_t bytes);

// The own process. Any thread, async-signal-safe; one load but for the first call in a process.
std::int32_t processId();

// The calling thread. Any thread, async-signal-safe; one load but for the first call of a thread.
std::uint32_t threadId();

// Whether the caller is the process's main thread. Any thread, async-signal-safe.
inline bool onMainThread() {
  return threadId() == static_cast<std::uint32_t>(processId());
}

// Whether this thread of the own process still exists. Any thread, async-signal-safe; one system call.
bool threadExists(std::uint32_t thread);

}  // namespace qbv::linux_backend
