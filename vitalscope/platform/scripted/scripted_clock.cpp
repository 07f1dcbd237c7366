#include "vitalscope/platform/scripted/scripted_clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace qbv {

AbsoluteTime ScriptedClock::CFAbsoluteTimeGetCurrent() {
  const std::lock_guard lock(mutex_);
  return baseTime_ + static_cast<double>(now_ - base_) / 1e9;
}

std::uint64_t ScriptedClock::monotonicNanoseconds() {
  const std::lock_guard lock(mutex_);
  return now_;
}

void ScriptedClock::advance(double seconds) {
  const auto nanoseconds = static_cast<std::uint64_t>(std::llround(std::max(seconds, 0.0) * 1e9));
  std::function<void(std::uint64_t)> handler;
  {
    const std::lock_guard lock(mutex_);
    handler = advanceHandler_;
    if (!handler) now_ += nanoseconds;
  }
  if (handler) handler(nanoseconds);
}

void ScriptedClock::setAbsoluteTime(AbsoluteTime time) {
  const std::lock_guard lock(mutex_);
  base_ = now_;
  baseTime_ = time;
}

void ScriptedClock::moveTo(std::uint64_t monotonicNanoseconds) {
  const std::lock_guard lock(mutex_);
  now_ = std::max(now_, monotonicNanoseconds);
}

void ScriptedClock::setAdvanceHandler(std::function<void(std::uint64_t nanoseconds)> handler) {
  const std::lock_guard lock(mutex_);
  advanceHandler_ = std::move(handler);
}

}  // namespace qbv
