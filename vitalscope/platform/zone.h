// Private zones: heap memory apart from the process's own heap.
#pragma once

#include <cstddef>

#include "vitalscope/platform/export.h"

namespace qbv {

// Memory of one purpose, taken from the system directly: what is allocated here is seen by no allocation hook
// and shares no lock with the process's heap. Takes no lock at all: one thread at a time, whichever; in an
// allocation hook, too, since nothing here comes back to the heap. A block is freed into the zone that it
// came from.
class QBV_EXPORT MallocZone {
 public:
  virtual ~MallocZone() = default;
  // At least `size` bytes aligned for any object, or null when the system has no more.
  virtual void* malloc(std::size_t size) noexcept = 0;
  // count × size bytes of zeros; null, too, when the product does not fit.
  virtual void* calloc(std::size_t count, std::size_t size) noexcept = 0;
  // A null pointer is left alone.
  virtual void free(void* pointer) noexcept = 0;
};

}  // namespace qbv
