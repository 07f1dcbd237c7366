// Live heap blocks by address.
#pragma once

#include <cstdint>

#include "vitalscope/memory/QBBaseHashmap.h"
#include "vitalscope/memory/QBStackRecords.h"
#include "vitalscope/platform/export.h"

class QBV_EXPORT QBPtrsHashmap final : public QBBaseHashmap {
 public:
  QBPtrsHashmap(std::uint64_t bucketCount, qbv::MallocZone* zone) : QBBaseHashmap(bucketCount, zone) {}
  ~QBPtrsHashmap() override;

  // False when the address is present, whose record then stays as it was, and when the zone has no memory.
  bool insertPtr(std::uint64_t address, const base_ptr_log* record);
  // Removes the address and writes what was known about it, but only when both pointers are given. False when
  // it is absent; then nothing is written.
  bool removePtr(std::uint64_t address, std::uint32_t* size, std::uint64_t* stackId);
  // The entry, valid until it is removed; null when the address is absent.
  ptr_node* lookupPtr(std::uint64_t address) const;
  // A new entry that is in no bucket, the caller's; null when the zone has no memory.
  ptr_node* create_hashmap_data(std::uint64_t address, const base_ptr_log* record);

 private:
  ptr_node** bucket(std::uint64_t address) const;
};
