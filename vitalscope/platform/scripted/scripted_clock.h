// A clock that stands still until the test moves it.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>

#include "vitalscope/platform/clock.h"

namespace qbv {

// Any thread.
class ScriptedClock final : public Clock {
 public:
  // 15 January 2024, 12:00:00 UTC.
  static constexpr AbsoluteTime kStart = 727012800.0;
  static constexpr std::uint64_t kMonotonicStart = 1'000'000'000'000;

  AbsoluteTime CFAbsoluteTimeGetCurrent() override;
  std::uint64_t monotonicNanoseconds() override;
  TimeValue gettimeofday() override;
  // A thread that the scripted dispatcher made sleeps until the test has moved the clock so far. Any other,
  // such as the test's own, moves the clock.
  void usleep(std::uint32_t microseconds) override;

  // Moves both clocks by this many seconds (not negative, rounded to whole nanoseconds). On a
  // ScriptedPlatform this is ScriptedDispatch::advance: timers that fall due meanwhile fire on the calling
  // thread.
  void advance(double seconds);
  // Sets the wall clock alone, as when the user sets the time: timers do not notice.
  void setAbsoluteTime(AbsoluteTime time);

  // For the double that drives timers: moves both clocks to this reading of the monotonic one and nothing
  // else; never back.
  void moveTo(std::uint64_t monotonicNanoseconds);
  void setAdvanceHandler(std::function<void(std::uint64_t nanoseconds)> handler);

 private:
  std::mutex mutex_;
  std::uint64_t now_ = kMonotonicStart;
  std::uint64_t base_ = kMonotonicStart;  // the monotonic reading at which the wall clock read baseTime_
  AbsoluteTime baseTime_ = kStart;
  std::function<void(std::uint64_t)> advanceHandler_;
};

}  // namespace qbv
