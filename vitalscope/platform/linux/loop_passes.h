// Passes of the main thread's loop, whoever turns it.
#pragma once

#include <atomic>

namespace qbv::linux_backend {

enum class LoopKind : int { none, own, glib, descriptor };

namespace detail {
inline constinit std::atomic<LoopKind> latestLoop{LoopKind::none};
}

// The main thread is at a pass of this loop. Main thread; one load, and a store when the kind changes.
inline void noteLoopPass(LoopKind kind) noexcept {
  if (detail::latestLoop.load(std::memory_order_relaxed) != kind)
    detail::latestLoop.store(kind, std::memory_order_relaxed);
}

// The kind of the latest pass. Any thread, async-signal-safe.
inline LoopKind latestLoop() noexcept {
  return detail::latestLoop.load(std::memory_order_relaxed);
}

}  // namespace qbv::linux_backend
