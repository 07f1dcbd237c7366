#include "vitalscope/platform/scripted/scripted_clock.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "vitalscope/platform/scripted/scripted_threads.h"

namespace qbv {

AbsoluteTime ScriptedClock::CFAbsoluteTimeGetCurrent() {
  const std::lock_guard lock(mutex_);
  return baseTime_ + static_cast<double>(now_ - base_) / 1e9;
}

std::uint64_t ScriptedClock::monotonicNanoseconds() {
  const std::lock_guard lock(mutex_);
  return now_;
}

TimeValue ScriptedClock::gettimeofday() {
  const std::lock_guard lock(mutex_);
  const auto base = std::llround((baseTime_ + kCFAbsoluteTimeIntervalSince1970) * 1e6);
  const auto now = base + static_cast<long long>((now_ - base_) / 1000);
  return {now / 1'000'000, static_cast<std::int32_t>(now % 1'000'000)};
}

void ScriptedClock::usleep(std::uint32_t microseconds) {
  const std::uint64_t end = monotonicNanoseconds() + std::uint64_t{microseconds} * 1000;
  if (!ScriptedThreads::sleepUntil(end)) advance(microseconds / 1e6);
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
