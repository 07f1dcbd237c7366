// Chained hash table whose memory comes from one zone.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/zone.h"

// What the two tables share: the bucket array, its counters and the zone. Takes no lock: all calls on a table
// come one after the other. Nothing here or in the subclasses touches the process's heap but `new` and
// `delete` of the table objects themselves and the making of QBStacksHashmap's logger.
class QBV_EXPORT QBBaseHashmap {
 public:
  // Takes the bucket array from the zone, which outlives the table. Fewer than 2 buckets count as 2: the last
  // one is never used. When the zone cannot supply the array, the table stays empty and drops every record.
  QBBaseHashmap(std::uint64_t bucketCount, qbv::MallocZone* zone);
  virtual ~QBBaseHashmap();
  QBBaseHashmap(const QBBaseHashmap&) = delete;
  QBBaseHashmap& operator=(const QBBaseHashmap&) = delete;

  // The sizes of the allocation monitor's two tables.
  static constexpr std::uint64_t kPtrsBuckets = 500'000;
  static constexpr std::uint64_t kStacksBuckets = 50'000;

  // Memory of the table's zone; null when it has no more.
  void* hashmap_malloc(std::size_t size) { return zone_->malloc(size); }
  void hashmap_free(void* pointer) { zone_->free(pointer); }

  // The bucket heads, getEntryNum() pointers to the subclass's entries; null when the zone could not supply
  // them.
  void* getHashmapEntry() const { return hashmapEntry_; }
  std::uint64_t getEntryNum() const { return entryNum_; }          // buckets
  std::uint64_t getRecordNum() const { return recordNum_; }        // entries present
  std::uint64_t getAccessNum() const { return accessNum_; }        // insert calls
  std::uint64_t getCollisionNum() const { return collisionNum_; }  // chain positions that they examined

 protected:
  // The bucket of a key, 0 to entryNum - 2.
  std::uint64_t bucketOf(std::uint64_t key) const {
    // By numbers that the compiler knows it divides in a quarter of the time.
    switch (entryNum_) {
      case kPtrsBuckets:
        return key % (kPtrsBuckets - 1);
      case kStacksBuckets:
        return key % (kStacksBuckets - 1);
      default:
        return key % (entryNum_ - 1);
    }
  }

  void* hashmapEntry_;
  std::uint64_t entryNum_;
  std::uint64_t recordNum_ = 0;
  std::uint64_t accessNum_ = 0;
  std::uint64_t collisionNum_ = 0;
  qbv::MallocZone* zone_;
};
