// Sums of live allocations by call stack.
#pragma once

#include <cstdint>
#include <string>

#include "vitalscope/memory/QBBaseHashmap.h"
#include "vitalscope/memory/QBStackHighSpeedLogger.h"
#include "vitalscope/memory/QBStackRecords.h"
#include "vitalscope/platform/export.h"

// A stack enters the stack file when its sum becomes greater than the threshold and leaves it when the sum
// falls below: exactly at the threshold it stays where it is.
class QBV_EXPORT QBStacksHashmap final : public QBBaseHashmap {
 public:
  // Makes the stack file at `path`, emptied; its folder must exist, otherwise nothing is logged. The
  // threshold is in bytes.
  QBStacksHashmap(std::uint64_t bucketCount, qbv::MallocZone* zone, const std::string& path,
                  std::uint64_t threshold);
  ~QBStacksHashmap() override;

  // Adds the event to its stack's sums, which wrap at 32 bits. Above the threshold the stack's slot in the
  // file is written at every call. A new stack is dropped when the zone has no memory.
  void insertStackAndIncreaseCountIfExist(std::uint64_t stackId, const base_stack_t* stack);
  // Takes bytes and allocations off the sums, never below 0, and brings the file up to date. The entry goes
  // when its count is 0. An absent stack is left alone.
  void removeIfCountIsZero(std::uint64_t stackId, std::uint32_t size, std::uint32_t count);
  // The entry, valid until it is removed; null when the stack is absent.
  merge_stack_t* lookupStack(std::uint64_t stackId) const;
  // A new entry that is in no bucket, the caller's; null when the zone has no memory.
  merge_stack_t* create_hashmap_data(std::uint64_t stackId, const base_stack_t* stack);

  std::uint64_t sizeThreshold() const { return sizeThreshold_; }
  const QBStackHighSpeedLogger& logger() const { return *logger_; }

 private:
  merge_stack_t** bucket(std::uint64_t stackId) const;
  void unlogOrUpdate(merge_stack_t* entry);
  void logIfOverThreshold(merge_stack_t* entry, const base_stack_t* stack);

  std::uint64_t sizeThreshold_;
  QBStackHighSpeedLogger* logger_;  // owned
};
