// A heap whose events the test tells, and zones that it can look into.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>

#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/scripted/scripted_zone.h"

namespace qbv {

// Has a logger of its own: the process's malloc_logger is left alone, and what the process itself allocates
// is not told. Any thread.
class ScriptedAllocator final : public Allocator {
 public:
  struct Zone {
    ScriptedZone zone;
    std::string name;
    std::size_t startSize = 0;
    unsigned flags = 0;
  };

  MallocZone* malloc_create_zone(std::size_t startSize, unsigned flags) override;
  void malloc_set_zone_name(MallocZone* zone, const char* name) override;
  bool installMallocLogger(malloc_logger_t* wanted) override;
  // Remembered only: everything is told.
  void countSmallBlocksFor(malloc_logger_t* wanted, std::size_t below) override;
  bool mallocLoggerSeesHeap() override;

  // --- Events, told on the calling thread to the logger there is.
  void tell(std::uint32_t type, std::uintptr_t argument2, std::uintptr_t argument3, std::uintptr_t result);
  void tellAllocation(std::uintptr_t address, std::size_t bytes) { tell(10, bytes, 0, address); }
  void tellReallocation(std::uintptr_t from, std::size_t bytes, std::uintptr_t to) {
    tell(14, from, bytes, to);
  }
  void tellFree(std::uintptr_t address) { tell(12, address, 0, 0); }

  void setSeesHeap(bool sees) { seesHeap_ = sees; }  // true at first
  void setLogger(malloc_logger_t* wanted) { logger_ = wanted; }
  malloc_logger_t* logger() const { return logger_; }
  malloc_logger_t* countedLogger() const { return countedLogger_; }
  // Made so far, in order.
  std::size_t zoneCount() const;
  const Zone& zone(std::size_t index) const;

 private:
  std::atomic<malloc_logger_t*> logger_{nullptr};
  std::atomic<malloc_logger_t*> countedLogger_{nullptr};
  std::atomic<bool> seesHeap_{true};
  mutable std::mutex mutex_;
  std::deque<Zone> zones_;
};

}  // namespace qbv
