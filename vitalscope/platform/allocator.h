// The process's heap as seen from its allocator, and zones of memory apart from it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/zone.h"

extern "C" {

// What the allocator calls for every event on the heap, on the thread that allocates or frees, with all locks
// of the allocator released. `type` is a sum of MALLOC_LOG_* flags:
//   10 allocation            argument2 = bytes, result = address
//   74 zero-filled           the same
//   14 reallocation          argument2 = old address, argument3 = new bytes, result = new address
//   12 free                  argument2 = address; called before the block is given back
// A reallocation of nothing is told as an allocation, one to 0 bytes as a free; what fails, and a free of
// nothing, is not told. `zone` names the heap and is not 0. framesToSkip: so many of the innermost frames are
// the allocator's own. The logger may allocate and free, and is then called for that, too.
using malloc_logger_t = void(std::uint32_t type, std::uintptr_t zone, std::uintptr_t argument2,
                             std::uintptr_t argument3, std::uintptr_t result, std::uint32_t framesToSkip);

// The logger in use, null for none. Set it with one store: events on other threads read it without a lock,
// and one that is under way may call a logger that was just taken out.
QBV_EXPORT extern malloc_logger_t* malloc_logger;

}  // extern "C"

namespace qbv {

inline constexpr std::uint32_t MALLOC_LOG_ALLOCATE = 2;
inline constexpr std::uint32_t MALLOC_LOG_DEALLOCATE = 4;
inline constexpr std::uint32_t MALLOC_LOG_HAS_ZONE = 8;
inline constexpr std::uint32_t MALLOC_LOG_CLEARED = 64;

// Any thread.
class QBV_EXPORT Allocator {
 public:
  virtual ~Allocator() = default;

  // A private zone that lives for ever; null when the system has no memory. Its pages come from the system.
  // startSize (bytes to begin with) and flags are 0.
  virtual MallocZone* malloc_create_zone(std::size_t startSize, unsigned flags) = 0;
  // The name is copied, at most 31 bytes of it. It is what the system's memory maps show, where they can.
  virtual void malloc_set_zone_name(MallocZone* zone, const char* name) = 0;

  // Sets malloc_logger if it is null. False when another logger is there, which then stays.
  virtual bool installMallocLogger(malloc_logger_t* logger) = 0;
  // While malloc_logger is `logger`, the allocator may count by itself, with addLiveBlocks, in place of
  // calling it: +1 for an allocation, zero-filled or not, of fewer than `below` bytes, −1 for a free. That
  // takes half the time. The logger must count the others in the same way, and cannot tell which ones it
  // gets. Null: everything is told again. Events that are under way may still go by what was said before.
  virtual void countSmallBlocksFor(malloc_logger_t* logger, std::size_t below) = 0;
  // Whether what this process allocates reaches malloc_logger. It does not where the program brings an
  // allocator of its own, where this library was loaded late, and in builds with sanitizers.
  virtual bool mallocLoggerSeesHeap() = 0;
};

}  // namespace qbv
