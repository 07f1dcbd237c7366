// Watches the heap from inside the allocator: live blocks, over-size allocations, and the stacks that
// allocations come from.
#pragma once

#include <cstdint>
#include <string>

#include "vitalscope/memory/QBAllocationFunctions.h"
#include "vitalscope/memory/QBPtrsHashmap.h"
#include "vitalscope/memory/QBStacksHashmap.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/zone.h"

class QBV_EXPORT QBAllocateMemoryMonitor {
 public:
  // The one monitor, made on the first call and never destroyed. Making it also makes the store of stacks: a
  // private zone, the two tables and the stack file in the diagnostic folder's "dump". Any thread.
  static QBAllocateMemoryMonitor* sharedInstance();

  // Counting begins and goes on from the count there is. If another malloc_logger is in place it stays there,
  // and nothing is seen. Any thread.
  void startMonitor();
  // Counting pauses; the logger stays in place. Any thread.
  void stop();
  // Hands the stacks of all other threads to the report writer as an object-memory-oversize report of this
  // size. Runs to its end on the calling thread, which may be inside an allocation.
  void handleAllocateOverMemory(std::int64_t kilobytes);
  // Allocations less frees seen while enabled; below 0 when blocks from before were freed. Any thread.
  static std::int64_t currentAllocMemoryLiveCount();

  // Bytes of one stack's live blocks above which the stack goes into the stack file. At this size the stacks
  // that fit the file before it first grows hold half of the 1024 MB at which memory counts as used up: few
  // enough to stay cheap to write, and together more than anything that matters then.
  static constexpr std::uint64_t sizeThreshold = 1048576;

  // Process-wide state. The first four are null or empty before the first sharedInstance; the zone and the
  // tables are used under the lock of recordMallocStack only, so they are to be looked at when nobody
  // records.
  static bool allocMonitorEnabled();
  static qbv::MallocZone* global_memory_zone();
  static QBPtrsHashmap* oom_ptrs_hashmap();
  static QBStacksHashmap* oom_stacks_hashmap();
  static std::string log_path();
  static std::int64_t topAllocSize();
  static std::int64_t lastAllocOverMemoryTimestamp();  // seconds since 1970, 0 before the first

 private:
  QBAllocateMemoryMonitor();
};
