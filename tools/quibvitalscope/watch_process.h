// A process's memory and CPU use, seen from outside.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qbv::cli {

// Of one moment.
struct ProcessReading {
  std::string name;
  std::uint64_t footprintBytes = 0;  // as the monitor counts it: own pages, also swapped out, and page tables
  std::uint64_t cpuTicks = 0;        // of all threads since the start
  std::uint64_t startTicks = 0;      // since the machine's start; tells apart processes with one number
  std::uint64_t threads = 0;
};

// The kernel's files on a process as a reading; nothing when one of them is no such text, or the process has
// ended and only waits to be taken note of. Pure.
std::optional<ProcessReading> readingOf(std::string_view stat, std::string_view status);

// Nothing when there is no such process any more.
std::optional<ProcessReading> readProcess(std::uint32_t process);

// Percent of one core between two readings of one process; 0 for a span of 0. Pure.
double cpuPercent(const ProcessReading& before, const ProcessReading& after, double seconds,
                  double ticksPerSecond);

double clockTicksPerSecond();
// How long the process has run, in seconds.
double age(const ProcessReading& reading);

}  // namespace qbv::cli
