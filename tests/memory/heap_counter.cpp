// Preloaded behind the platform library it has every allocation of any program counted.
#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/thread_counts.h"

namespace {

void count(std::uint32_t type, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
           std::uint32_t) {
  qbv::addLiveBlocks(type == 12 ? -1 : 1);
}

[[gnu::constructor]] void begin() {
  malloc_logger = count;
}

}  // namespace
