// The own process as the kernel shows it: threads, their state and use, memory, footprint.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "vitalscope/platform/export.h"

namespace qbv {

// Names one thread of the process. linux: the kernel's thread id.
using ThreadPort = std::uint32_t;

using KernReturn = int;
inline constexpr KernReturn KERN_SUCCESS = 0;
inline constexpr KernReturn KERN_INVALID_ADDRESS = 1;
inline constexpr KernReturn KERN_INVALID_ARGUMENT = 4;
inline constexpr KernReturn KERN_FAILURE = 5;

inline constexpr std::int32_t TH_USAGE_SCALE = 1000;  // cpu_usage of one core fully used
inline constexpr std::int32_t TH_FLAGS_IDLE = 2;      // the kernel's own idle thread

struct ThreadBasicInfo {
  std::int32_t cpu_usage = 0;  // decayed recent average, TH_USAGE_SCALE is one core
  std::int32_t flags = 0;      // TH_FLAGS_IDLE or 0
};

// Layout of the 64-bit Arm thread state: 68 words of 32 bits. Other machines fill pc, sp, fp and, if they
// have one, lr; fp points at a frame record {previous fp, return address}.
struct ThreadState {
  std::array<std::uint64_t, 29> x{};
  std::uint64_t fp = 0;
  std::uint64_t lr = 0;
  std::uint64_t sp = 0;
  std::uint64_t pc = 0;
  std::uint32_t cpsr = 0;
  std::uint32_t pad = 0;
};
static_assert(sizeof(ThreadState) == std::size_t{68} * 4);

struct TaskVmInfo {
  std::uint64_t phys_footprint = 0;  // bytes
};

class QBV_EXPORT Task {
 public:
  virtual ~Task() = default;

  // The calling thread. Any thread.
  virtual ThreadPort mach_thread_self() = 0;
  // The process's first thread, whichever thread asks.
  virtual ThreadPort mainThread() = 0;

  // All threads at this instant, in the kernel's order. On success *list is memory of *count ports that the
  // caller gives back with vm_deallocate(*list, *count * 4), after mach_port_deallocate of each port. A list
  // of 0 threads may be null. Any thread; takes no memory from the heap.
  virtual KernReturn task_threads(ThreadPort** list, std::uint32_t* count) = 0;
  virtual KernReturn mach_port_deallocate(ThreadPort port) = 0;
  virtual KernReturn vm_deallocate(const void* address, std::size_t size) = 0;

  // Recent CPU use of one thread; fails for a thread that has ended. Any thread.
  virtual KernReturn thread_info(ThreadPort thread, ThreadBasicInfo* info) = 0;

  // Registers of another thread. On linux this takes a snapshot of registers and used stack and lays the call
  // chain out as frame records; the records stay readable until the calling thread takes its next state.
  // Fails for the calling thread itself, a thread that has ended, and one that cannot be reached in time.
  virtual KernReturn thread_get_state(ThreadPort thread, ThreadState* state) = 0;
  // Between these two the frame records of the thread do not change. They neither allocate nor lock.
  virtual KernReturn thread_suspend(ThreadPort thread) = 0;
  virtual KernReturn thread_resume(ThreadPort thread) = 0;
  // A hint: the calling thread will now take the states of these threads one after the other (its own port
  // among them is passed over). A backend may take all snapshots at once. Ends with didCaptureThreads.
  virtual void willCaptureThreads(const ThreadPort* threads, std::uint32_t count);
  virtual void didCaptureThreads();

  // Return addresses of the calling thread's own stack, innermost first, the one behind this call among them;
  // at most `size`. Answers how many. Any thread, not in signal handlers; takes no heap memory, except in
  // the process's first call. An allocation hook may call it.
  virtual int backtrace(void** buffer, int size) = 0;

  // Copies memory of the own process; an address that is not mapped gives KERN_INVALID_ADDRESS, never a
  // fault. *copied (may be null) is what was copied. Any thread, async-signal-safe, no lock, no allocation.
  virtual KernReturn vm_read_overwrite(std::uint64_t address, std::size_t size, void* buffer,
                                       std::size_t* copied) = 0;

  // Physical footprint of the process. Any thread.
  virtual KernReturn task_info(TaskVmInfo* info) = 0;

  // When the kernel started this process, milliseconds since 1970 (UTC) with fraction; nothing if it is not
  // known.
  virtual std::optional<double> processStartTimeMilliseconds() = 0;

  // Mask that takes authentication and tag bits off a code address.
  virtual std::uint64_t addressMask() = 0;
};

}  // namespace qbv
