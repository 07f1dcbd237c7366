#include "vitalscope/probes/stack_walk.h"

namespace qbv {
namespace {

struct FrameRecord {
  std::uint64_t previous;
  std::uint64_t returnAddress;
};

class Suspension {
 public:
  Suspension(Task& task, ThreadPort thread) : task_(task), thread_(thread) { task_.thread_suspend(thread_); }
  ~Suspension() { task_.thread_resume(thread_); }
  Suspension(const Suspension&) = delete;
  Suspension& operator=(const Suspension&) = delete;

 private:
  Task& task_;
  ThreadPort thread_;
};

bool readRecord(Task& task, std::uint64_t address, FrameRecord& record) {
  return task.vm_read_overwrite(address, sizeof(record), &record, nullptr) == KERN_SUCCESS;
}

}  // namespace

bool walkStack(Task& task, ThreadPort thread, const ThreadState& state, AddressList& list) {
  const std::uint64_t mask = task.addressMask();
  const Suspension suspension(task, thread);
  list.count = 0;
  list.addresses[list.count++] = state.pc & mask;
  if (const std::uint64_t link = state.lr & mask; link != 0) list.addresses[list.count++] = link;

  FrameRecord record;
  if (state.fp == 0 || !readRecord(task, state.fp, record)) return false;
  while (list.count < maximumFrames) {
    list.addresses[list.count] = record.returnAddress & mask;
    if (list.addresses[list.count] == 0 || record.previous == 0) break;
    if (!readRecord(task, record.previous, record)) break;
    ++list.count;
  }
  return true;
}

}  // namespace qbv
