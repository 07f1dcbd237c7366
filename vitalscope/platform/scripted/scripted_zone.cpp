#include "vitalscope/platform/scripted/scripted_zone.h"

#include <cstdlib>
#include <limits>

#include "vitalscope/platform/platform.h"

namespace qbv {

ScriptedZone::~ScriptedZone() {
  for (const auto& [block, size] : blocks_) std::free(block);
}

void* ScriptedZone::take(std::size_t size, bool zeroed) {
  const std::lock_guard lock(mutex_);
  if (goodOnesLeft_ == 0) return nullptr;
  void* const block = zeroed ? std::calloc(1, size) : std::malloc(size);
  if (block == nullptr) return nullptr;
  if (goodOnesLeft_ != std::numeric_limits<std::size_t>::max()) --goodOnesLeft_;
  blocks_.emplace(block, size);
  liveBytes_ += size;
  ++allocations_;
  return block;
}

void* ScriptedZone::malloc(std::size_t size) noexcept {
  return take(size, false);
}

void* ScriptedZone::calloc(std::size_t count, std::size_t size) noexcept {
  if (size != 0 && count > std::numeric_limits<std::size_t>::max() / size) return nullptr;
  return take(count * size, true);
}

void ScriptedZone::free(void* pointer) noexcept {
  if (pointer == nullptr) return;
  const std::lock_guard lock(mutex_);
  const auto found = blocks_.find(pointer);
  if (found == blocks_.end()) assertionFailure(__func__, __FILE__, __LINE__, "block belongs to this zone");
  liveBytes_ -= found->second;
  blocks_.erase(found);
  std::free(pointer);
}

void ScriptedZone::failAfter(std::size_t skip) {
  const std::lock_guard lock(mutex_);
  goodOnesLeft_ = skip;
}

void ScriptedZone::supplyAgain() {
  failAfter(std::numeric_limits<std::size_t>::max());
}

std::size_t ScriptedZone::liveBlocks() const {
  const std::lock_guard lock(mutex_);
  return blocks_.size();
}

std::size_t ScriptedZone::liveBytes() const {
  const std::lock_guard lock(mutex_);
  return liveBytes_;
}

std::size_t ScriptedZone::allocations() const {
  const std::lock_guard lock(mutex_);
  return allocations_;
}

}  // namespace qbv
