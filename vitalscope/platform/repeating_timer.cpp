#include "vitalscope/platform/repeating_timer.h"

#include <cstdint>
#include <utility>

#include "vitalscope/platform/platform.h"

namespace qbv {

namespace {

std::uint64_t nanoseconds(double seconds) {
  constexpr double kLeast = 0.001;
  constexpr double kMost = 1e9;
  if (!(seconds > kLeast)) seconds = kLeast;
  return static_cast<std::uint64_t>((seconds < kMost ? seconds : kMost) * static_cast<double>(NSEC_PER_SEC));
}

}  // namespace

RepeatingTimer::RepeatingTimer(std::string queueLabel, double intervalSeconds, Block tick)
    : queueLabel_(std::move(queueLabel)), tick_(std::move(tick)), interval_(intervalSeconds) {}

void RepeatingTimer::start() {
  DispatchTimerRef fresh;
  {
    const std::lock_guard lock(lock_);
    if (isStart()) return;
    timer_.reset();
    fresh = presentTimer();
    isStart_.store(true, std::memory_order_relaxed);
  }
  // Outside the lock: the first tick comes at once and may stop the timer.
  platform().dispatch.dispatch_resume(fresh);
}

void RepeatingTimer::stop() {
  const std::lock_guard lock(lock_);
  drop();
}

void RepeatingTimer::stopUnless(const std::atomic<bool>& wanted) {
  const std::lock_guard lock(lock_);
  if (!wanted.load(std::memory_order_relaxed)) drop();
}

void RepeatingTimer::drop() {
  if (timer_ == nullptr) return;
  platform().dispatch.dispatch_source_cancel(timer_);
  timer_.reset();
  isStart_.store(false, std::memory_order_relaxed);
}

DispatchQueueRef RepeatingTimer::queue() {
  const std::lock_guard lock(lock_);
  return presentQueue();
}

DispatchTimerRef RepeatingTimer::timer() {
  const std::lock_guard lock(lock_);
  return presentTimer();
}

const DispatchQueueRef& RepeatingTimer::presentQueue() {
  if (queue_ == nullptr)
    queue_ = platform().dispatch.dispatch_queue_create(queueLabel_, QueueKind::concurrent);
  return queue_;
}

const DispatchTimerRef& RepeatingTimer::presentTimer() {
  if (timer_ == nullptr) {
    Dispatch& dispatch = platform().dispatch;
    timer_ = dispatch.dispatch_source_create(presentQueue());
    dispatch.dispatch_source_set_timer(timer_, nanoseconds(interval()), 0);
    dispatch.dispatch_source_set_event_handler(timer_, [this] { tick(); });
  }
  return timer_;
}

void RepeatingTimer::tick() {
  if (tickRuns_.exchange(true, std::memory_order_acquire)) return;
  tick_();
  tickRuns_.store(false, std::memory_order_release);
}

}  // namespace qbv
