// Wall-clock and monotonic time.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// Seconds since 1 January 2001, 00:00 UTC.
using AbsoluteTime = double;

// Seconds between 1 January 1970 and 1 January 2001 (both 00:00 UTC).
inline constexpr double kCFAbsoluteTimeIntervalSince1970 = 978307200.0;

class QBV_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  // Any thread; async-signal-safe. The wall clock: it jumps when the system's time is set.
  virtual AbsoluteTime CFAbsoluteTimeGetCurrent() = 0;
  // Any thread; async-signal-safe. Nanoseconds of a clock that never goes back and stands still in sleep.
  virtual std::uint64_t monotonicNanoseconds() = 0;
};

}  // namespace qbv
