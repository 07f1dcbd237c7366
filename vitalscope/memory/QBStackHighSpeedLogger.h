// Keeps the heaviest allocation stacks in a mapped file, where they outlive the process.
#pragma once

#include <cstdint>
#include <string>

#include "vitalscope/memory/QBStackRecords.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/zone.h"

namespace qbv {

// One slot of the stack file, which is nothing but slots, in the machine's byte order.
struct StackSlot {
  std::uint32_t count;  // allocations alive; 0: the slot is empty, whatever else it holds
  std::uint32_t size;   // bytes alive
  std::uint32_t alloc_type;
  std::uint32_t depth;  // valid entries of `frames`
  std::uint64_t stack_id;
  std::uint64_t frames[qb_stack_max_depth];  // return addresses, innermost first
};
static_assert(sizeof(StackSlot) == 536);

}  // namespace qbv

// An open-addressed table of stacks: a stack's home is its id modulo (capacity - 1), collisions go on to the
// next slot and round. Emptying a slot ends later searches that come through it, so a stack that was pushed
// further may be written a second time; its older copy stays in the file.
//
// An update stores into a shared mapping: no system call, and what was stored reaches the file also when the
// process is killed. Readers in other processes may see a slot half written. Takes no lock: all calls come
// one after the other. Once the file could not be made, sized or mapped the logger does nothing for good.
class QBV_EXPORT QBStackHighSpeedLogger {
 public:
  // Makes or empties the file and maps it; the folder must exist. The zone lends memory while the file grows,
  // and outlives the logger. Fewer than 2 slots count as 2.
  QBStackHighSpeedLogger(std::uint64_t slots, qbv::MallocZone* zone, const std::string& path);
  ~QBStackHighSpeedLogger();  // the file stays
  QBStackHighSpeedLogger(const QBStackHighSpeedLogger&) = delete;
  QBStackHighSpeedLogger& operator=(const QBStackHighSpeedLogger&) = delete;

  // Writes or rewrites the stack's slot. When that leaves but one slot free the file doubles, slots keeping
  // their places; not for stacks of type 1, and not while the zone has no memory for it: then the next update
  // tries again. A stack that finds neither its slot nor a free one is dropped. Frames past the 64th are
  // left out.
  void updateStack(const merge_stack_t* entry, const base_stack_t* stack);
  // Empties the stack's slot, or brings its count and size up to date. A stack without a slot is left alone.
  void removeStack(const merge_stack_t* entry, bool remove);

  bool hasError() const { return hasError_; }
  std::uint64_t capacity() const { return capacity_; }    // slots
  std::uint64_t usedCount() const { return usedCount_; }  // slots with a count

 private:
  qbv::StackSlot* slots() const { return static_cast<qbv::StackSlot*>(mapping_); }
  qbv::StackSlot* slotForWriting(std::uint64_t stackId) const;
  qbv::StackSlot* slotOf(std::uint64_t stackId) const;
  bool mapWholeFile();
  void unmapFile();
  void grow();
  void uncount();

  void* mapping_ = nullptr;
  std::uint64_t mappedSize_;  // bytes
  qbv::MallocZone* zone_;
  int file_ = -1;
  bool hasError_ = false;
  std::uint64_t capacity_;
  std::uint64_t usedCount_ = 0;
};
