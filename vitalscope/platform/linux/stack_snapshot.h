// A snapshot of a running thread, taken by a signal.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/snapshot_slot.h"
#include "vitalscope/platform/linux/stack_view.h"

namespace qbv::linux_backend {

// Nanoseconds of the monotonic clock, for deadlines.
std::uint64_t monotonicNow();

// One thread's snapshot from request to release; holds a slot between. Used by one requesting thread, not in
// signal handlers. Any number of requesters may want the same thread.
class StackSnapshot {
 public:
  enum class Request { prepared, sent, noSlot, failed };

  StackSnapshot() = default;
  ~StackSnapshot() { release(); }
  StackSnapshot(const StackSnapshot&) = delete;
  StackSnapshot& operator=(const StackSnapshot&) = delete;

  // Takes a slot, so that nothing is left to do but to send. noSlot when all slots are in use; failed when
  // there is no signal, or no memory for the slot.
  Request prepare(std::uint32_t thread);
  // Signals the thread; false when it is gone. After prepare has answered prepared.
  bool send();
  // Both; prepared is not among the answers.
  Request request(std::uint32_t thread);

  // Waits until the thread has answered; false at the deadline (monotonicNow), or sooner when the thread has
  // ended. Copying that has begun is waited for one second longer, then given up as well.
  bool await(std::uint64_t deadline);

  // After await was true, until release.
  const Registers& registers() const { return slot_->registers; }
  StackView stack() const;

  void release();

 private:
  bool giveUp();

  SnapshotSlot* slot_ = nullptr;
  std::uint32_t thread_ = 0;
  int signal_ = 0;
};

}  // namespace qbv::linux_backend
