#include "vitalscope/platform/scripted/scripted_allocator.h"

namespace qbv {

MallocZone* ScriptedAllocator::malloc_create_zone(std::size_t startSize, unsigned flags) {
  const std::lock_guard lock(mutex_);
  Zone& made = zones_.emplace_back();
  made.startSize = startSize;
  made.flags = flags;
  return &made.zone;
}

void ScriptedAllocator::malloc_set_zone_name(MallocZone* zone, const char* name) {
  const std::lock_guard lock(mutex_);
  for (Zone& known : zones_)
    if (&known.zone == zone) known.name = name;
}

bool ScriptedAllocator::installMallocLogger(malloc_logger_t* wanted) {
  malloc_logger_t* none = nullptr;
  return logger_.compare_exchange_strong(none, wanted);
}

void ScriptedAllocator::countSmallBlocksFor(malloc_logger_t* wanted, std::size_t) {
  countedLogger_ = wanted;
}

bool ScriptedAllocator::mallocLoggerSeesHeap() {
  return seesHeap_;
}

void ScriptedAllocator::tell(std::uint32_t type, std::uintptr_t argument2, std::uintptr_t argument3,
                             std::uintptr_t result) {
  constexpr std::uintptr_t kZone = 0x5a0;
  if (malloc_logger_t* const present = logger_) present(type, kZone, argument2, argument3, result, 1);
}

std::size_t ScriptedAllocator::zoneCount() const {
  const std::lock_guard lock(mutex_);
  return zones_.size();
}

const ScriptedAllocator::Zone& ScriptedAllocator::zone(std::size_t index) const {
  const std::lock_guard lock(mutex_);
  return zones_.at(index);
}

}  // namespace qbv
