#include "vitalscope/memory/QBStacksHashmap.h"

#include <algorithm>
#include <new>

#include "vitalscope/memory/chain.h"

namespace {

constexpr auto kKey = &merge_stack_t::stack_id;
constexpr std::uint64_t kSlotsAtStart = 500;

}  // namespace

QBStacksHashmap::QBStacksHashmap(std::uint64_t bucketCount, qbv::MallocZone* zone, const std::string& path,
                                 std::uint64_t threshold)
    : QBBaseHashmap(bucketCount, zone),
      sizeThreshold_(threshold),
      logger_(new QBStackHighSpeedLogger(kSlotsAtStart, zone, path)) {}

QBStacksHashmap::~QBStacksHashmap() {
  qbv::freeChains<merge_stack_t>(*this);
  delete logger_;
}

merge_stack_t** QBStacksHashmap::bucket(std::uint64_t stackId) const {
  return static_cast<merge_stack_t**>(hashmapEntry_) + bucketOf(stackId);
}

merge_stack_t* QBStacksHashmap::create_hashmap_data(std::uint64_t stackId, const base_stack_t* stack) {
  void* const memory = hashmap_malloc(sizeof(merge_stack_t));
  if (memory == nullptr) return nullptr;
  return new (memory) merge_stack_t{stackId, stack->count, 0, stack->size, nullptr};
}

void QBStacksHashmap::insertStackAndIncreaseCountIfExist(std::uint64_t stackId, const base_stack_t* stack) {
  ++accessNum_;
  ++collisionNum_;
  if (hashmapEntry_ == nullptr) return;
  merge_stack_t** const link = qbv::linkTo<kKey>(bucket(stackId), stackId, collisionNum_);
  if (*link != nullptr) {
    (*link)->count += stack->count;
    (*link)->size += stack->size;
  } else {
    *link = create_hashmap_data(stackId, stack);
    if (*link == nullptr) return;
    ++recordNum_;
  }
  logIfOverThreshold(*link, stack);
}

void QBStacksHashmap::logIfOverThreshold(merge_stack_t* entry, const base_stack_t* stack) {
  if (entry->size <= sizeThreshold_) return;
  entry->is_logged = 1;
  logger_->updateStack(entry, stack);
}

void QBStacksHashmap::unlogOrUpdate(merge_stack_t* entry) {
  const bool remove = sizeThreshold_ > entry->size;
  logger_->removeStack(entry, remove);
  if (remove) entry->is_logged = 0;
}

void QBStacksHashmap::removeIfCountIsZero(std::uint64_t stackId, std::uint32_t size, std::uint32_t count) {
  if (hashmapEntry_ == nullptr) return;
  merge_stack_t** const link = qbv::linkTo<kKey>(bucket(stackId), stackId);
  merge_stack_t* const entry = *link;
  if (entry == nullptr) return;
  entry->size -= std::min(entry->size, size);
  entry->count -= std::min(entry->count, count);
  if (entry->is_logged == 1) unlogOrUpdate(entry);
  if (entry->count != 0) return;
  *link = entry->next;
  hashmap_free(entry);
  --recordNum_;
}

merge_stack_t* QBStacksHashmap::lookupStack(std::uint64_t stackId) const {
  return hashmapEntry_ == nullptr ? nullptr : *qbv::linkTo<kKey>(bucket(stackId), stackId);
}
