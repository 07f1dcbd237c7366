#include <cerrno>

#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/memory/allocation_state.h"
#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/monitored_process.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/thread_counts.h"

namespace qbv {
constinit AllocationState allocationState;
}

namespace {

using namespace qbv;

constexpr std::uint32_t kAllocation = MALLOC_LOG_ALLOCATE | MALLOC_LOG_HAS_ZONE;
constexpr std::uint32_t kCleared = kAllocation | MALLOC_LOG_CLEARED;
constexpr std::uint32_t kReallocation = kAllocation | MALLOC_LOG_DEALLOCATE;
constexpr std::uint32_t kFree = MALLOC_LOG_DEALLOCATE | MALLOC_LOG_HAS_ZONE;
static_assert(kAllocation == 10 && kCleared == 74 && kReallocation == 14 && kFree == 12);

// Fixed storage, which needs no memory on first use.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool reporting = false;

[[gnu::noinline, gnu::cold]] void reportOverMemory(std::uint64_t size) {
  if (reporting || forkedChild()) return;
  const int savedErrno = errno;
  reporting = true;
  QBAllocateMemoryMonitor::sharedInstance()->handleAllocateOverMemory(static_cast<std::int64_t>(size / 1024));
  reporting = false;
  errno = savedErrno;
}

// Only in these is anything called, so that the ways below need no frame.
[[gnu::noinline, gnu::cold]] void countAllocationSlowly(std::uint64_t size) {
  addLiveBlocks(1);
  if (size >= qb_over_memory_bytes) reportOverMemory(size);
}

[[gnu::noinline, gnu::cold]] void countFreeSlowly() {
  addLiveBlocks(-1);
}

inline void countAllocation(std::uint64_t size) {
  if (size >= qb_over_memory_bytes || !hasThreadCounts()) [[unlikely]]
    return countAllocationSlowly(size);
  addLiveBlocks(1);
}

inline void countFree() {
  if (!hasThreadCounts()) [[unlikely]]
    return countFreeSlowly();
  addLiveBlocks(-1);
}

}  // namespace

void quib_malloc_stack_logger(std::uint32_t type, std::uintptr_t, std::uintptr_t argument2,
                              std::uintptr_t argument3, std::uintptr_t result, std::uint32_t) {
  if (!allocationState.allocMonitorEnabled.load(std::memory_order_relaxed) || argument2 == result) return;
  switch (type) {
    case kAllocation:
    case kCleared:
      return countAllocation(argument2);
    case kReallocation:
      return countAllocation(argument3);
    case kFree:
      return countFree();
    default:
      return;
  }
}

void handle_alloc(std::uint32_t, std::uint64_t size, std::uint64_t) {
  countAllocation(size);
}

void handle_free(std::uint64_t) {
  addLiveBlocks(-1);
}

void memory_request_frequency() {
  const double now = platform().clock.CFAbsoluteTimeGetCurrent() + kCFAbsoluteTimeIntervalSince1970;
  allocationState.lastAllocOverMemoryTimestamp.store(static_cast<std::int64_t>(now),
                                                     std::memory_order_relaxed);
}

void record_top_size_memory(std::int64_t size) {
  std::atomic<std::int64_t>& top = allocationState.topAllocSize;
  std::int64_t present = top.load(std::memory_order_relaxed);
  while (present < size && !top.compare_exchange_weak(present, size, std::memory_order_relaxed)) {
  }
}

bool isInAppAddress(std::uint64_t) {
  return false;
}
