// Repeating timers and the thread that knows when they are due.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "vitalscope/platform/linux/dispatch_work.h"

namespace qbv::linux_backend {

class TimerThread;

// A timer that its owner lets go without cancelling it ends too; a firing that waits by then still happens.
class Timer final : public DispatchTimer, private WorkItem, public std::enable_shared_from_this<Timer> {
 public:
  Timer(std::shared_ptr<TargetQueue> queue, TimerThread& thread);
  ~Timer() override;

  // All from any thread; not in a forked child. An interval of 0 means one firing only. Set on a running
  // timer the interval counts from now.
  void setInterval(std::uint64_t intervalNanoseconds, std::uint64_t leewayNanoseconds);
  void setHandler(Block handler);
  void resume();
  void cancel();

 private:
  friend class TimerThread;
  enum class Firing { none, waiting, running, runningAndDue };

  bool run() noexcept override;
  // With the thread's lock held: whether the timer is to be put on its queue for a firing that is due now. A
  // firing that waits or runs already takes it in.
  bool beginFiring();
  void scheduleFrom(std::uint64_t now);
  void skipPast(std::uint64_t now) noexcept;

  const std::shared_ptr<TargetQueue> queue_;
  const bool isOfMainQueue_;
  TimerThread& thread_;

  // All below under the thread's lock.
  std::shared_ptr<const Block> handler_;
  std::uint64_t interval_ = 0;
  std::uint64_t leeway_ = 0;
  std::uint64_t deadline_ = 0;  // of the next firing: the start and a whole number of intervals, no drift
  bool resumed_ = false;
  bool cancelled_ = false;
  Firing firing_ = Firing::none;
  std::shared_ptr<Timer> self_;  // set while a firing waits or runs
  bool armed_ = false;
  Timer* previous_ = nullptr;
  Timer* following_ = nullptr;
};

// Sleeps until the next timer is due and puts its firing on its queue: one wake-up for all that are due by
// then. A timer with leeway is not woken for before its deadline and leeway have passed, so it goes along
// with others. The thread is made when the first timer is resumed and ends when there has been none for 5
// seconds. Never destroyed.
//
// Timers of the main queue are left to the main thread as long as it looks after them in its own waits: that
// saves a wake-up of the thread, and one of the main thread by it, at every firing. The thread takes them
// back when one is overdue by a second, because the loop has become another or does not turn.
class TimerThread {
 public:
  ~TimerThread() = delete;
  static TimerThread& shared();

  // Main thread, about to wait: as long as given (negative: without end), or until a timer of the main queue
  // is due. From then on it looks after them. One load while there are none.
  int shortenedWait(int timeoutMilliseconds);
  // Main thread, after it has waited: puts the firings that are due on the main queue. Whether there were
  // any.
  bool fireOfMainQueue();

 private:
  friend class Timer;
  enum class Looker { timerThread, mainThread };
  TimerThread();

  static void threadMain(void* self);
  void loop();
  void sleep(std::unique_lock<std::mutex>& lock);
  // The four below with the lock held.
  WorkList takeDue(std::uint64_t now, Looker looker);
  std::uint64_t graceOf(const Timer& timer) const noexcept;
  void arm(Timer& timer) noexcept;
  void disarm(Timer& timer) noexcept;
  // Makes the thread or has it look at the timers again. Without the lock.
  void attend();

  std::mutex mutex_;
  std::condition_variable changed_;
  Timer* armed_ = nullptr;  // few: they are looked through one by one
  bool running_ = false;
  bool mainThreadLooks_ = false;
  std::atomic<int> armedOfMainQueue_{0};  // changes under the lock
};

}  // namespace qbv::linux_backend
