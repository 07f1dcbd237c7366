#include "vitalscope/memory/QBStackHighSpeedLogger.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "vitalscope/platform/platform.h"

using qbv::platform;
using qbv::StackSlot;

QBStackHighSpeedLogger::QBStackHighSpeedLogger(std::uint64_t slots, qbv::MallocZone* zone,
                                               const std::string& path)
    : zone_(zone), capacity_(std::max<std::uint64_t>(slots, 2)) {
  mappedSize_ = capacity_ * sizeof(StackSlot);
  file_ = platform().files.open(path, true);
  if (file_ < 0 || !mapWholeFile()) {
    hasError_ = true;
    return;
  }
  std::memset(mapping_, 0, mappedSize_);
}

QBStackHighSpeedLogger::~QBStackHighSpeedLogger() {
  unmapFile();
  if (file_ >= 0) platform().files.close(file_);
}

bool QBStackHighSpeedLogger::mapWholeFile() {
  qbv::Files& files = platform().files;
  return files.setSize(file_, mappedSize_) == 0 && files.map(file_, mappedSize_, &mapping_) == 0;
}

void QBStackHighSpeedLogger::unmapFile() {
  if (mapping_ != nullptr) platform().files.unmap(mapping_, mappedSize_);
  mapping_ = nullptr;
}

StackSlot* QBStackHighSpeedLogger::slotForWriting(std::uint64_t stackId) const {
  std::uint64_t index = stackId % (capacity_ - 1);
  for (std::uint64_t examined = 0; examined < capacity_; ++examined) {
    StackSlot* const slot = slots() + index;
    if (slot->count == 0 || slot->stack_id == stackId) return slot;
    if (++index == capacity_) index = 0;
  }
  return nullptr;
}

StackSlot* QBStackHighSpeedLogger::slotOf(std::uint64_t stackId) const {
  std::uint64_t index = stackId % (capacity_ - 1);
  for (std::uint64_t examined = 0; examined < capacity_ - 1; ++examined) {
    StackSlot* const slot = slots() + index;
    if (slot->count == 0) return nullptr;
    if (slot->stack_id == stackId) return slot;
    if (++index == capacity_) index = 0;
  }
  return nullptr;
}

void QBStackHighSpeedLogger::uncount() {
  if (usedCount_ > 0) --usedCount_;
}

void QBStackHighSpeedLogger::updateStack(const merge_stack_t* entry, const base_stack_t* stack) {
  if (hasError_) return;
  StackSlot* const slot = slotForWriting(entry->stack_id);
  if (slot == nullptr) return;
  if (slot->count != 0) uncount();
  const std::uint32_t depth = std::min<std::uint32_t>(stack->depth, qb_stack_max_depth);
  slot->size = entry->size;
  slot->alloc_type = stack->alloc_type;
  slot->depth = depth;
  slot->stack_id = entry->stack_id;
  std::copy_n(stack->frames, depth, slot->frames);
  // Last: a process killed on the way leaves no new slot half written.
  std::atomic_ref(slot->count).store(entry->count, std::memory_order_release);
  // A sum that wrapped to 0 leaves the slot free.
  if (entry->count != 0) ++usedCount_;
  if (usedCount_ > capacity_ - 2 && stack->alloc_type != 1) grow();
}

void QBStackHighSpeedLogger::grow() {
  const std::uint64_t oldSize = mappedSize_;
  void* const copy = zone_->malloc(oldSize);
  if (copy == nullptr) return;
  std::memcpy(copy, mapping_, oldSize);
  unmapFile();
  capacity_ *= 2;
  mappedSize_ = capacity_ * sizeof(StackSlot);
  if (mapWholeFile()) {
    // The file still holds its slots: they are stored over themselves, so that a reader never finds them
    // gone.
    std::memcpy(mapping_, copy, oldSize);
    std::memset(static_cast<char*>(mapping_) + oldSize, 0, mappedSize_ - oldSize);
  } else {
    hasError_ = true;
  }
  zone_->free(copy);
}

void QBStackHighSpeedLogger::removeStack(const merge_stack_t* entry, bool remove) {
  if (hasError_) return;
  StackSlot* const slot = slotOf(entry->stack_id);
  if (slot == nullptr) return;
  slot->size = remove ? 0 : entry->size;
  slot->count = remove ? 0 : entry->count;
  if (slot->count == 0) uncount();
}
