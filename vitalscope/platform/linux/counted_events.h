// The events of the heap that the allocator counts by itself.
#pragma once

#include <atomic>
#include <cstddef>

#include "vitalscope/platform/allocator.h"

namespace qbv::linux_backend {

// See Allocator::countSmallBlocksFor. Read at every event, without a lock: `below` is set before `logger`.
struct CountedEvents {
  std::atomic<malloc_logger_t*> logger{nullptr};
  std::atomic<std::size_t> below{0};
};
[[gnu::visibility("hidden")]] extern constinit CountedEvents countedEvents;

}  // namespace qbv::linux_backend
