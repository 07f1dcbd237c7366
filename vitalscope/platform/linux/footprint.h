// How large the own process is and since when it runs.
#pragma once

#include <cstdint>
#include <optional>

namespace qbv::linux_backend {

// Bytes of anonymous memory, resident or swapped out, and of page tables. Any thread; about 2 µs at any size
// of the process: one read of a descriptor that is kept open (close-on-exec, with a high number, reopened in
// a forked child and when somebody closed it). Nothing when the kernel cannot be asked.
std::optional<std::uint64_t> processFootprint();

// When the process started, milliseconds since 1970 (UTC), to the kernel's 10 ms: the wall clock of now, less
// the time since boot, plus the start's time since boot. A clock that was set is followed. Any thread.
std::optional<double> processStartMilliseconds();

// Seconds since boot, sleep included, the clock of ProcStat::startTicks.
double bootSeconds();
// Those ticks in seconds.
double ticksInSeconds(std::uint64_t ticks);

}  // namespace qbv::linux_backend
