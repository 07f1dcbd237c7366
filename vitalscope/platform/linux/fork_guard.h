// Tells a forked child from the process that the library was made for.
#pragma once

#include <atomic>

namespace qbv::linux_backend {

namespace detail {
extern std::atomic<bool> forkedChild;
}

// From the first call on, every fork() of this process makes an inert child. Any thread, any number of times.
void watchForks();

// True in a child that came from fork() after watchForks() and has not called exec: no worker or timer thread
// exists there and a lock of the backend may be held by a thread that is gone. Whoever is about to take such
// a lock asks first and does nothing. One relaxed load; any thread, async-signal-safe.
inline bool isForkedChild() noexcept {
  return detail::forkedChild.load(std::memory_order_relaxed);
}

}  // namespace qbv::linux_backend
