// What the allocation monitor's pieces share.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "vitalscope/memory/QBPtrsHashmap.h"
#include "vitalscope/memory/QBStacksHashmap.h"

namespace qbv {

// Process-wide, for the life of the process. Constant-initialised: the logger may run before any constructor.
struct AllocationState {
  std::atomic<bool> allocMonitorEnabled{false};
  std::atomic<std::int64_t> topAllocSize{0};
  std::atomic<std::int64_t> lastAllocOverMemoryTimestamp{0};
};
extern constinit AllocationState allocationState;

// The store of stacks; every piece is null until all of it is there, and then stays.
struct StackStore {
  MallocZone* global_memory_zone = nullptr;
  QBPtrsHashmap* oom_ptrs_hashmap = nullptr;
  QBStacksHashmap* oom_stacks_hashmap = nullptr;
  const std::string* log_path = nullptr;
};
const StackStore& stackStore() noexcept;
// Makes it, with the stack file at this path. Once.
void makeStackStore(const std::string& logPath, std::uint64_t sizeThreshold);

}  // namespace qbv
