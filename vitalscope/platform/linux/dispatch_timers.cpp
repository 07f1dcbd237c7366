#include "vitalscope/platform/linux/dispatch_timers.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/run_loop_queue.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::uint64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::chrono::seconds kIdleTime{5};
// How late the main thread may be with a firing until the timer thread takes its timers back.
constexpr std::uint64_t kTrustInMainThread = NSEC_PER_SEC;
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
    : queue_(std::move(queue)), isOfMainQueue_(queue_.get() == &MainQueue::shared()), thread_(thread) {}

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
  // It may sleep past the new deadline: it looks again before its next wait.
  if (isOfMainQueue_) thread_.mainThreadLooks_ = false;
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
  if (timer.isOfMainQueue_) armedOfMainQueue_.fetch_add(1, std::memory_order_relaxed);
  timer.previous_ = nullptr;
  timer.following_ = armed_;
  if (armed_ != nullptr) armed_->previous_ = &timer;
  armed_ = &timer;
}

void TimerThread::disarm(Timer& timer) noexcept {
  if (!timer.armed_) return;
  timer.armed_ = false;
  if (timer.isOfMainQueue_) armedOfMainQueue_.fetch_sub(1, std::memory_order_relaxed);
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
    WorkList due = takeDue(monotonicNow(), Looker::timerThread);
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
    wakeUp = std::min(wakeUp, later(timer->deadline_, std::max(timer->leeway_, graceOf(*timer))));
  changed_.wait_until(lock, timePoint(wakeUp));
}

std::uint64_t TimerThread::graceOf(const Timer& timer) const noexcept {
  return mainThreadLooks_ && timer.isOfMainQueue_ ? kTrustInMainThread : 0;
}

WorkList TimerThread::takeDue(std::uint64_t now, Looker looker) {
  const bool isMainThread = looker == Looker::mainThread;
  WorkList due;
  for (Timer* timer = armed_; timer != nullptr; timer = timer->following_) {
    if (isMainThread && !timer->isOfMainQueue_) continue;
    if (later(timer->deadline_, isMainThread ? 0 : graceOf(*timer)) > now) continue;
    if (timer->isOfMainQueue_) mainThreadLooks_ = isMainThread;
    timer->skipPast(now);
    if (timer->beginFiring()) due.push(*timer);
  }
  return due;
}

int TimerThread::shortenedWait(int timeoutMilliseconds) {
  constexpr std::uint64_t kNanosecondsPerMillisecond = 1'000'000;
  if (armedOfMainQueue_.load(std::memory_order_relaxed) == 0 || isForkedChild()) return timeoutMilliseconds;
  const std::lock_guard lock(mutex_);
  mainThreadLooks_ = true;
  std::uint64_t wakeUp = kNever;
  for (const Timer* timer = armed_; timer != nullptr; timer = timer->following_)
    if (timer->isOfMainQueue_) wakeUp = std::min(wakeUp, later(timer->deadline_, timer->leeway_));
  const std::uint64_t now = monotonicNow();
  const std::uint64_t left = wakeUp > now ? (wakeUp - now - 1) / kNanosecondsPerMillisecond + 1 : 0;
  const int until = static_cast<int>(std::min<std::uint64_t>(left, std::numeric_limits<int>::max()));
  return timeoutMilliseconds < 0 ? until : std::min(timeoutMilliseconds, until);
}

bool TimerThread::fireOfMainQueue() {
  if (armedOfMainQueue_.load(std::memory_order_relaxed) == 0 || isForkedChild()) return false;
  WorkList due;
  {
    const std::lock_guard lock(mutex_);
    due = takeDue(monotonicNow(), Looker::mainThread);
  }
  bool any = false;
  while (WorkItem* const firing = due.pop()) {
    MainQueue::shared().enqueue(*firing);
    any = true;
  }
  return any;
}

}  // namespace qbv::linux_backend
