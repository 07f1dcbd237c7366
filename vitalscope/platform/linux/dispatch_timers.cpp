#include "vitalscope/platform/linux/dispatch_timers.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::uint64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::chrono::seconds kIdleTime{5};
// The timer thread runs no handler.
constexpr std::size_t kTimerStackBytes = std::size_t{128} * 1024;

std::uint64_t monotonicNow() {
  const auto now = SteadyClock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}

SteadyClock::time_point timePoint(std::uint64_t nanoseconds) {
  return SteadyClock::time_point(std::chrono::nanoseconds(static_cast<std::int64_t>(nanoseconds)));
}

// a + b, at most kNever.
std::uint64_t later(std::uint64_t a, std::uint64_t b) noexcept {
  return b >= kNever - std::min(a, kNever) ? kNever : a + b;
}

}  // namespace

// --- Timer ---

Timer::Timer(std::shared_ptr<TargetQueue> queue, TimerThread& thread)
    : queue_(std::move(queue)), thread_(thread) {}

Timer::~Timer() {
  if (isForkedChild()) return;
  const std::lock_guard lock(thread_.mutex_);
  thread_.disarm(*this);
}

void Timer::setInterval(std::uint64_t intervalNanoseconds, std::uint64_t leewayNanoseconds) {
  {
    const std::lock_guard lock(thread_.mutex_);
    interval_ = intervalNanoseconds;
    leeway_ = leewayNanoseconds;
    if (!resumed_ || cancelled_) return;
    scheduleFrom(monotonicNow());
  }
  thread_.attend();
}

void Timer::setHandler(Block handler) {
  auto replacement = std::make_shared<const Block>(std::move(handler));
  const std::lock_guard lock(thread_.mutex_);
  if (!cancelled_) handler_.swap(replacement);  // the old one ends after the lock: arguments outlive locals
}

void Timer::resume() {
  bool fire = false;
  {
    const std::lock_guard lock(thread_.mutex_);
    if (resumed_ || cancelled_) return;
    resumed_ = true;
    scheduleFrom(monotonicNow());
    fire = beginFiring();
  }
  if (fire) queue_->enqueue(*this);
  thread_.attend();
}

void Timer::cancel() {
  std::shared_ptr<const Block> handler;  // ends after the lock: what it holds may call us
  const std::lock_guard lock(thread_.mutex_);
  cancelled_ = true;
  thread_.disarm(*this);
  handler = std::move(handler_);
}

bool Timer::run() noexcept {
  std::shared_ptr<const Block> handler;
  {
    const std::lock_guard lock(thread_.mutex_);
    firing_ = Firing::running;
    handler = handler_;
  }
  if (handler != nullptr && *handler) (*handler)();
  if (isForkedChild()) return false;
  handler.reset();

  std::shared_ptr<Timer> self;
  const std::shared_ptr<TargetQueue> queue = queue_;
  {
    const std::lock_guard lock(thread_.mutex_);
    const bool again = firing_ == Firing::runningAndDue && !cancelled_ && self_.use_count() > 1;
    firing_ = again ? Firing::waiting : Firing::none;
    if (!again) self = std::move(self_);
  }
  if (self == nullptr) queue->enqueue(*this);
  return false;
}

bool Timer::beginFiring() {
  if (firing_ == Firing::running) firing_ = Firing::runningAndDue;
  if (firing_ != Firing::none) return false;
  self_ = weak_from_this().lock();
  if (self_ == nullptr) return false;  // its owner has just let it go
  firing_ = Firing::waiting;
  return true;
}

void Timer::scheduleFrom(std::uint64_t now) {
  thread_.disarm(*this);
  if (interval_ == 0) return;
  deadline_ = later(now, interval_);
  thread_.arm(*this);
}

void Timer::skipPast(std::uint64_t now) noexcept {
  const std::uint64_t missed = (now - deadline_) / interval_;
  deadline_ = later(deadline_, (missed + 1) * interval_);
}

// --- TimerThread ---

TimerThread::TimerThread() {
  watchForks();
}

TimerThread& TimerThread::shared() {
  static TimerThread* const instance = new TimerThread;
  return *instance;
}

void TimerThread::arm(Timer& timer) noexcept {
  timer.armed_ = true;
  timer.previous_ = nullptr;
  timer.following_ = armed_;
  if (armed_ != nullptr) armed_->previous_ = &timer;
  armed_ = &timer;
}

void TimerThread::disarm(Timer& timer) noexcept {
  if (!timer.armed_) return;
  timer.armed_ = false;
  (timer.previous_ == nullptr ? armed_ : timer.previous_->following_) = timer.following_;
  if (timer.following_ != nullptr) timer.following_->previous_ = timer.previous_;
}

void TimerThread::attend() {
  {
    const std::lock_guard lock(mutex_);
    if (armed_ == nullptr) return;
    if (running_) {
      changed_.notify_one();
      return;
    }
    running_ = true;
  }
  if (startThread("quib timer", kTimerStackBytes, threadMain, this)) return;
  const std::lock_guard lock(mutex_);
  running_ = false;
}

void TimerThread::threadMain(void* self) {
  static_cast<TimerThread*>(self)->loop();
}

void TimerThread::loop() {
  std::unique_lock lock(mutex_);
  for (;;) {
    WorkList due = takeDue(monotonicNow());
    if (!due.empty()) {
      lock.unlock();
      while (WorkItem* const firing = due.pop()) {
        Timer& timer = *static_cast<Timer*>(firing);
        const std::shared_ptr<TargetQueue> queue = timer.queue_;
        queue->enqueue(timer);
      }
      lock.lock();
    } else if (armed_ != nullptr) {
      sleep(lock);
    } else if (changed_.wait_for(lock, kIdleTime) == std::cv_status::timeout && armed_ == nullptr) {
      running_ = false;
      return;
    }
  }
}

void TimerThread::sleep(std::unique_lock<std::mutex>& lock) {
  std::uint64_t wakeUp = kNever;
  for (const Timer* timer = armed_; timer != nullptr; timer = timer->following_)
    wakeUp = std::min(wakeUp, later(timer->deadline_, timer->leeway_));
  changed_.wait_until(lock, timePoint(wakeUp));
}

WorkList TimerThread::takeDue(std::uint64_t now) {
  WorkList due;
  for (Timer* timer = armed_; timer != nullptr; timer = timer->following_) {
    if (timer->deadline_ > now) continue;
    timer->skipPast(now);
    if (timer->beginFiring()) due.push(*timer);
  }
  return due;
}

}  // namespace qbv::linux_backend
