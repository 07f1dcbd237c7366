// What a thread that captures others keeps: the frame records of its current snapshot, and its batch.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/capture_round.h"
#include "vitalscope/platform/linux/frame_records.h"
#include "vitalscope/platform/task.h"

namespace qbv::linux_backend {

// One per capturing thread, in pages of its own, unmapped when the thread ends. Used by that thread alone,
// not in signal handlers.
class Requester {
 public:
  // The calling thread's, made on its first use; null when there is no memory.
  static Requester* current();
  // The same, but null instead of a new one.
  static Requester* present();

  // Captures the threads of a list together; state answers from that until endBatch.
  void beginBatch(std::span<const ThreadPort> threads);
  void endBatch();

  // Task::thread_get_state.
  KernReturn state(ThreadPort thread, ThreadState& state);

  // Copies from the calling thread's records; false when not all of it lies there. Async-signal-safe.
  static bool copyFromRecords(std::uint64_t address, std::size_t size, void* buffer);

  // Task::thread_suspend and thread_resume: the records of the snapshot taken last cannot change before this
  // thread takes the next one, so all there is to do is to tell whether they are that thread's. No lock.
  KernReturn pin(ThreadPort thread);
  KernReturn unpin(ThreadPort thread);

 private:
  const CapturedThread* fromBatch(ThreadPort thread);

  FrameRecords records_;
  ThreadPort shown_ = 0;  // whose snapshot the records are
  bool pinned_ = false;
  std::span<CapturedThread> batch_;
  std::size_t batchNext_ = 0;
  CapturedThread single_;
  alignas(16) std::array<std::byte, kFirstCopy> scratch_;
};

}  // namespace qbv::linux_backend
