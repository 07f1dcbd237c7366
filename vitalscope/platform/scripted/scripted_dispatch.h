// Queues and timers that run when the test says so, on the test's own thread, in a fixed order.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/scripted/scripted_clock.h"
#include "vitalscope/platform/scripted/scripted_threads.h"

namespace qbv {

// What a test may ask about a timer, live or not.
struct ScriptedTimerInfo {
  std::string queueLabel;
  std::uint64_t intervalNanoseconds = 0;
  std::uint64_t leewayNanoseconds = 0;
  bool resumed = false;
  bool cancelled = false;  // or nobody refers to it any more
  unsigned firings = 0;    // runs of the handler that have begun
};

// Nothing runs by itself. runUntilIdle() and advance() run blocks and timer handlers on the calling thread,
// in the order in which they were put on their queues, the earlier first across queues. Blocks and timers of
// the main queue wait until the run loop is drained (ScriptedRunLoop), so a test that does not drain plays a
// blocked main thread.
//
// Blocks and handlers may do anything, also async, make and cancel timers, and call advance() to play that
// they take long: other queues' timers then fire inside that call, those of a serial queue that is busy wait
// and merge. A block that puts itself back for ever makes runUntilIdle() run for ever.
//
// A timer that nobody refers to any more does not fire. Any thread; no lock is held while blocks run.
class ScriptedDispatch final : public Dispatch {
 public:
  explicit ScriptedDispatch(ScriptedClock& clock);
  ~ScriptedDispatch() override;

  DispatchQueueRef dispatch_queue_create(const std::string& label, QueueKind kind) override;
  DispatchQueueRef dispatch_get_global_queue() override;  // label "global"
  DispatchQueueRef dispatch_get_main_queue() override;    // label "main"
  void dispatch_async(const DispatchQueueRef& queue, Block block) override;
  DispatchTimerRef dispatch_source_create(const DispatchQueueRef& queue) override;
  // An interval of 0 counts as one nanosecond. Setting a resumed timer starts it anew.
  void dispatch_source_set_timer(const DispatchTimerRef& timer, std::uint64_t intervalNanoseconds,
                                 std::uint64_t leewayNanoseconds) override;
  void dispatch_source_set_event_handler(const DispatchTimerRef& timer, Block handler) override;
  void dispatch_resume(const DispatchTimerRef& timer) override;
  void dispatch_source_cancel(const DispatchTimerRef& timer) override;
  // The thread begins when the test next lets things run, goes on whenever what it slept for with the
  // scripted clock's usleep is over, and runs while the test's thread stands still.
  DispatchThreadRef startThread(const std::string& name, Block entry) override;

  // Runs every waiting block, every timer and every thread that is due, without moving the clock, until
  // nothing is left but the main queue's. Answers whether anything ran.
  bool runUntilIdle();
  // Runs what waits now, then moves the clock by that many seconds, stopping at each moment at which a timer
  // falls due to run it there. At the end both clocks stand at the target, or later when a handler advanced
  // past it. advance(0) is runUntilIdle().
  void advance(double seconds);
  void advanceNanoseconds(std::uint64_t nanoseconds);

  // The main queue. drainMainQueue runs what waits at the moment of the call (timers due then included), not
  // what that adds. waitForMainQueue blocks until it has work or wakeMainQueue() is called.
  bool drainMainQueue();
  void waitForMainQueue();
  void wakeMainQueue();
  std::size_t mainQueueLength();

  // Blocks and firings that wait on all queues but the main one.
  std::size_t pendingCount();
  // Every timer made so far, oldest first.
  std::vector<ScriptedTimerInfo> timers();
  // Timers that are resumed and not cancelled.
  std::size_t liveTimerCount();
  // Names of the threads that have not ended, oldest first.
  std::vector<std::string> threadNames() { return threads_.names(); }
  // Labels of the queues made by dispatch_queue_create, oldest first.
  std::vector<std::string> queueLabels();

 private:
  struct Queue;
  struct Timer;
  struct TimerHandle;
  struct Item;

  static std::shared_ptr<Timer> timerOf(const DispatchTimerRef& timer);
  void push(const std::shared_ptr<Queue>& queue, Item item);
  void enqueueDue();
  std::optional<std::uint64_t> nextDue();
  std::shared_ptr<Queue> nextRunnable();
  void runFront(std::unique_lock<std::mutex>& lock, Queue& queue);
  void fire(std::unique_lock<std::mutex>& lock, Timer& timer);

  ScriptedClock& clock_;
  std::mutex mutex_;
  std::condition_variable mainQueueHasWork_;
  bool mainQueueWoken_ = false;
  std::uint64_t nextSequence_ = 0;
  std::shared_ptr<Queue> mainQueue_;
  std::shared_ptr<Queue> globalQueue_;
  std::vector<std::shared_ptr<Queue>> working_;  // queues with items, without the main one
  std::vector<std::shared_ptr<Timer>> timers_;   // all that were ever made
  std::vector<std::shared_ptr<Timer>> running_;  // those of them that may still fire
  std::vector<std::string> queueLabels_;
  ScriptedThreads threads_;
};

}  // namespace qbv
