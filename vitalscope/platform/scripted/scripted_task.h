// Threads, memory and footprint as the test tells them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/task.h"

namespace qbv {

enum class TaskCall {
  task_threads,
  mach_port_deallocate,
  vm_deallocate,
  thread_info,
  thread_get_state,
  thread_suspend,
  thread_resume,
  vm_read_overwrite,
  task_info,
  willCaptureThreads,
  didCaptureThreads,
};

// One call as it came in. `thread` is 0 and `address` is 0 where the operation has none.
struct TaskCallRecord {
  TaskCall call;
  ThreadPort thread = 0;
  std::uint64_t address = 0;
  KernReturn result = KERN_SUCCESS;
};

struct ScriptedThread {
  ThreadPort port = 0;
  ThreadBasicInfo info{};
  ThreadState state{};
};

// A process without threads, with no memory but what is mapped here. Any thread. The record of calls has room
// for 65,536 entries from the start, so a call allocates nothing before that.
class ScriptedTask final : public Task {
 public:
  static constexpr ThreadPort kMainThread = 259;
  static constexpr ThreadPort kSelf = 1031;
  static constexpr std::uint64_t kAddressMask = 0xFFFFFFFFF;

  ScriptedTask();
  ~ScriptedTask() override;

  ThreadPort mach_thread_self() override;
  ThreadPort mainThread() override;
  KernReturn task_threads(ThreadPort** list, std::uint32_t* count) override;
  // Fails with KERN_INVALID_ARGUMENT for a port that is not handed out at present.
  KernReturn mach_port_deallocate(ThreadPort port) override;
  // Fails with KERN_INVALID_ARGUMENT unless address and size are those of a list handed out.
  KernReturn vm_deallocate(const void* address, std::size_t size) override;
  // These four fail with KERN_INVALID_ARGUMENT for a thread that is not in the list. Getting the state of the
  // calling thread, and resuming a thread that is not suspended, fails with KERN_FAILURE.
  KernReturn thread_info(ThreadPort thread, ThreadBasicInfo* info) override;
  KernReturn thread_get_state(ThreadPort thread, ThreadState* state) override;
  KernReturn thread_suspend(ThreadPort thread) override;
  KernReturn thread_resume(ThreadPort thread) override;
  void willCaptureThreads(const ThreadPort* threads, std::uint32_t count) override;
  void didCaptureThreads() override;
  // What setBacktrace said for all threads; not recorded as a call.
  int backtrace(void** buffer, int size) override;
  // What is mapped; a read that leaves it fails and copies nothing.
  KernReturn vm_read_overwrite(std::uint64_t address, std::size_t size, void* buffer,
                               std::size_t* copied) override;
  KernReturn task_info(TaskVmInfo* info) override;
  std::optional<double> processStartTimeMilliseconds() override;
  std::uint64_t addressMask() override;

  // --- Threads. The list keeps the order of adding; a port that is there is replaced in its place.
  void addThread(const ScriptedThread& thread);
  void addThread(ThreadPort port, std::int32_t cpuUsage = 0, std::int32_t flags = 0);
  void setState(ThreadPort port, const ThreadState& state);
  void setCpuUsage(ThreadPort port, std::int32_t cpuUsage, std::int32_t flags = 0);
  void removeThread(ThreadPort port);
  void removeAllThreads();
  // What mach_thread_self answers: kSelf unless set, for all threads or for the calling one.
  void setSelf(ThreadPort port);
  void setSelfOfCallingThread(ThreadPort port);
  void setMainThread(ThreadPort port);

  // --- Failures. From now on the call answers `result`, after `skip` further good calls and for `times`
  // calls (0: for ever). With a thread, only calls for that thread count. A failing call has no other effect.
  void fail(TaskCall call, KernReturn result = KERN_FAILURE, std::optional<ThreadPort> thread = {},
            unsigned skip = 0, unsigned times = 0);
  void clearFailures();

  // --- Memory. Pieces may touch but not overlap; a later piece at an address replaces one that begins there.
  void mapMemory(std::uint64_t address, std::span<const std::byte> bytes);
  void mapWords(std::uint64_t address, const std::vector<std::uint64_t>& words);
  // {previous frame pointer, return address} at `address`.
  void mapFrameRecord(std::uint64_t address, std::uint64_t previous, std::uint64_t returnAddress);
  // One record of 16 bytes per return address, innermost first, each `stride` bytes above the one before; the
  // last record's previous pointer is 0. Answers the frame pointer to begin with (`address`).
  std::uint64_t mapFrameChain(std::uint64_t address, const std::vector<std::uint64_t>& returnAddresses,
                              std::uint64_t stride = 32);
  void unmap(std::uint64_t address);  // the piece that begins there
  // Reads that touch this byte fail although it is mapped.
  void failReadsAt(std::uint64_t address, KernReturn result = KERN_INVALID_ADDRESS);
  // Addresses with no piece of their own are looked up in the real process, safely. Off at first.
  void setReadsRealMemory(bool on);

  // --- The process.
  void setFootprint(std::uint64_t bytes);
  void setFootprintMegabytes(double megabytes);
  void setProcessStartTimeMilliseconds(std::optional<double> time);
  void setAddressMask(std::uint64_t mask);
  void setBacktrace(std::vector<std::uint64_t> returnAddresses);

  // --- What was done.
  std::vector<TaskCallRecord> calls() const;
  std::vector<TaskCall> callsForThread(ThreadPort thread) const;
  std::size_t callCount(TaskCall call) const;
  void clearCalls();
  // Ports and lists handed out by task_threads and not given back.
  std::size_t portsOutstanding() const;
  std::size_t listsOutstanding() const;
  // Threads whose suspensions outnumber their resumptions.
  std::vector<ThreadPort> suspendedThreads() const;

 private:
  struct Failure {
    TaskCall call;
    KernReturn result;
    std::optional<ThreadPort> thread;
    unsigned skip;
    unsigned times;
    bool spent;
  };
  struct ListedThread : ScriptedThread {
    unsigned suspensions = 0;
  };
  using Pieces = std::map<std::uint64_t, std::vector<std::byte>>;
  using Piece = Pieces::value_type;

  ListedThread* find(ThreadPort port);
  std::optional<KernReturn> scriptedFailure(TaskCall call, ThreadPort thread);
  KernReturn record(TaskCall call, KernReturn result, ThreadPort thread = 0, std::uint64_t address = 0);
  KernReturn readMemory(std::uint64_t address, std::size_t size, std::byte* buffer);
  KernReturn readReal(std::uint64_t address, std::size_t size, std::byte* buffer) const;
  const Piece* pieceAt(std::uint64_t address) const;
  ThreadPort selfLocked() const;

  mutable std::mutex mutex_;
  std::vector<ListedThread> threads_;
  std::map<ThreadPort, int> portsOut_;
  std::map<const void*, std::unique_ptr<ThreadPort[]>> lists_;
  std::map<const void*, std::size_t> listSizes_;
  std::vector<Failure> failures_;
  Pieces memory_;
  std::map<std::uint64_t, KernReturn> failingReads_;
  bool readsRealMemory_ = false;
  ThreadPort self_ = kSelf;
  std::map<std::thread::id, ThreadPort> selfOfThread_;
  ThreadPort mainThread_ = kMainThread;
  std::uint64_t footprint_ = 0;
  std::optional<double> startTime_;
  std::uint64_t addressMask_ = kAddressMask;
  std::vector<std::uint64_t> backtrace_;
  std::vector<TaskCallRecord> calls_;
};

}  // namespace qbv
