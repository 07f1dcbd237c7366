// The clockwork of a periodic monitor: a queue of its own and a timer on it.
#pragma once

#include <atomic>
#include <mutex>
#include <string>

#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"

namespace qbv {

// Both are made on first use; every start makes a fresh timer. Ticks run on the queue, one at a time: one
// that comes while another runs, as after a restart, does nothing. Any thread, not in signal handlers; the
// tick may call everything here. Must live as long as ticks may come, which is as long as the process for
// whatever was ever started.
class QBV_EXPORT RepeatingTimer {
 public:
  RepeatingTimer(std::string queueLabel, double intervalSeconds, Block tick);
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  // While started it does nothing, otherwise the first tick comes at once.
  void start();
  // While stopped it does nothing. A tick that is running goes on to its end.
  void stop();
  // Stops, unless the flag is set by then; whoever sets it and then starts has the last word.
  void stopUnless(const std::atomic<bool>& wanted);
  bool isStart() const { return isStart_.load(std::memory_order_relaxed); }

  // Seconds from tick to tick; a change counts from the next start. What lies outside of a millisecond to
  // thirty years, or is no number, counts as the nearer end.
  double interval() const { return interval_.load(std::memory_order_relaxed); }
  void setInterval(double seconds) { interval_.store(seconds, std::memory_order_relaxed); }

  // A concurrent queue; the same one always. The present timer, or a suspended one that no start will use.
  DispatchQueueRef queue();
  DispatchTimerRef timer();

 private:
  void tick();
  // For callers that hold lock_.
  const DispatchQueueRef& presentQueue();
  const DispatchTimerRef& presentTimer();
  void drop();

  const std::string queueLabel_;
  const Block tick_;
  std::atomic<double> interval_;
  std::atomic<bool> isStart_{false};
  std::atomic<bool> tickRuns_{false};
  std::mutex lock_;  // start and stop against each other; the timer and the queue
  DispatchQueueRef queue_;
  DispatchTimerRef timer_;
};

}  // namespace qbv
