// Wall-clock and monotonic time.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// Seconds since 1 January 2001, 00:00 UTC.
using AbsoluteTime = double;

// Seconds between 1 January 1970 and 1 January 2001 (both 00:00 UTC).
inline constexpr double kCFAbsoluteTimeIntervalSince1970 = 978307200.0;

// A moment of the wall clock: seconds since 1 January 1970, 00:00 UTC, and microseconds of the second.
struct TimeValue {
  std::int64_t tv_sec = 0;
  std::int32_t tv_usec = 0;
};

class QBV_EXPORT Clock {
 public:
  virtual ~Clock() = default;
  // Any thread; async-signal-safe. The wall clock: it jumps when the system's time is set.
  virtual AbsoluteTime CFAbsoluteTimeGetCurrent() = 0;
  // Any thread; async-signal-safe. Nanoseconds of a clock that never goes back and stands still in sleep.
  virtual std::uint64_t monotonicNanoseconds() = 0;
  // Any thread; async-signal-safe. The wall clock again, in whole microseconds.
  virtual TimeValue gettimeofday() = 0;
  // Any thread. Sleeps that long by the monotonic clock; a signal does not cut it short.
  virtual void usleep(std::uint32_t microseconds) = 0;
};

}  // namespace qbv
