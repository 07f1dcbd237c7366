// Recent CPU use of threads: a decayed average, worked out when it is asked for.
#pragma once

#include <cstdint>
#include <optional>

namespace qbv::linux_backend {

// A decayed average of one thread's load, half of it from the last second. How often it is brought up to date
// does not change it. Until a second or so has been watched, what was watched counts fully.
struct DecayedLoad {
  std::uint64_t wallNanoseconds = 0;
  std::uint64_t cpuNanoseconds = 0;
  double sum = 0;     // decayed sum of load
  double weight = 0;  // decayed sum of watched time, 1 after some seconds

  // Takes in the time since the last reading. A wall time that did not grow changes nothing.
  void update(std::uint64_t wall, std::uint64_t cpu);
  // 1000 for one core fully used.
  std::int32_t usage() const;
};

// The state to start from when a thread is first seen: cpu used in a life of age seconds counts for the
// average as if used evenly when the life was short. An older thread that does not run now counts as idle,
// one that runs has the share that it had of its whole life: that it runs may mean no more than that it has
// just been woken, as the threads that lead up to this question have.
DecayedLoad firstSight(std::uint64_t wall, std::uint64_t cpu, double age, bool runs);

// CPU time of a thread of the own process in nanoseconds; nothing for any other number and for dead threads.
// Any thread, async-signal-safe.
std::optional<std::uint64_t> threadCpuNanoseconds(std::uint32_t thread);

// Recent use of a thread, 1000 for one core; nothing when there is no such thread. Keeps what it needs of the
// last 1024 threads asked about. Any thread, not in signal handlers, nothing from the heap.
std::optional<std::int32_t> recentUsage(std::uint32_t thread);

}  // namespace qbv::linux_backend
