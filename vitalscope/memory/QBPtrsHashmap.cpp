#include "vitalscope/memory/QBPtrsHashmap.h"

#include <new>

#include "vitalscope/memory/chain.h"

namespace {

constexpr auto kKey = &ptr_node::address;

}  // namespace

QBPtrsHashmap::~QBPtrsHashmap() {
  qbv::freeChains<ptr_node>(*this);
}

ptr_node** QBPtrsHashmap::bucket(std::uint64_t address) const {
  return static_cast<ptr_node**>(hashmapEntry_) + bucketOf(address);
}

ptr_node* QBPtrsHashmap::create_hashmap_data(std::uint64_t address, const base_ptr_log* record) {
  void* const memory = hashmap_malloc(sizeof(ptr_node));
  if (memory == nullptr) return nullptr;
  return new (memory) ptr_node{record->stack_id, record->size, address, nullptr};
}

bool QBPtrsHashmap::insertPtr(std::uint64_t address, const base_ptr_log* record) {
  ++accessNum_;
  ++collisionNum_;
  if (hashmapEntry_ == nullptr) return false;
  ptr_node** const link = qbv::linkTo<kKey>(bucket(address), address, collisionNum_);
  if (*link != nullptr) return false;
  *link = create_hashmap_data(address, record);
  if (*link == nullptr) return false;
  ++recordNum_;
  return true;
}

bool QBPtrsHashmap::removePtr(std::uint64_t address, std::uint32_t* size, std::uint64_t* stackId) {
  if (hashmapEntry_ == nullptr) return false;
  ptr_node** const link = qbv::linkTo<kKey>(bucket(address), address);
  ptr_node* const entry = *link;
  if (entry == nullptr) return false;
  *link = entry->next;
  if (size != nullptr && stackId != nullptr) {
    *size = entry->size;
    *stackId = entry->stack_id;
  }
  hashmap_free(entry);
  --recordNum_;
  return true;
}

ptr_node* QBPtrsHashmap::lookupPtr(std::uint64_t address) const {
  return hashmapEntry_ == nullptr ? nullptr : *qbv::linkTo<kKey>(bucket(address), address);
}
