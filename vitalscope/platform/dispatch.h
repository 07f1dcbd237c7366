// Queues, the main queue and timer sources.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "vitalscope/platform/export.h"

namespace qbv {

using Block = std::function<void()>;

class QBV_EXPORT DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;
  virtual const std::string& label() const noexcept = 0;
};
using DispatchQueueRef = std::shared_ptr<DispatchQueue>;

// A repeating timer. Made suspended: nothing fires before dispatch_resume.
class QBV_EXPORT DispatchTimer {
 public:
  virtual ~DispatchTimer() = default;
};
using DispatchTimerRef = std::shared_ptr<DispatchTimer>;

// A thread of its own, as long as its entry runs.
class QBV_EXPORT DispatchThread {
 public:
  virtual ~DispatchThread() = default;
  virtual const std::string& name() const noexcept = 0;
};
using DispatchThreadRef = std::shared_ptr<const DispatchThread>;

enum class QueueKind { serial, concurrent };

inline constexpr std::uint64_t NSEC_PER_SEC = 1000000000;

// Any thread, not in signal handlers. A block that throws ends the process: none may. Worker threads are made
// when first needed, run with all signals blocked, carry names and end when idle.
class QBV_EXPORT Dispatch {
 public:
  virtual ~Dispatch() = default;

  virtual DispatchQueueRef dispatch_queue_create(const std::string& label, QueueKind kind) = 0;
  // The process-wide concurrent queue of default priority.
  virtual DispatchQueueRef dispatch_get_global_queue() = 0;
  // Blocks run on the main thread, in order, when its loop drains them (RunLoop).
  virtual DispatchQueueRef dispatch_get_main_queue() = 0;
  // Runs the block on the queue later and returns at once. Blocks of a serial queue run one after the other.
  virtual void dispatch_async(const DispatchQueueRef& queue, Block block) = 0;

  virtual DispatchTimerRef dispatch_source_create(const DispatchQueueRef& queue) = 0;
  // First firing at once when resumed, then every `interval`. Firings that fall due while the handler runs or
  // waits merge into one; the handler never runs twice at the same time, also on a concurrent queue.
  virtual void dispatch_source_set_timer(const DispatchTimerRef& timer, std::uint64_t intervalNanoseconds,
                                         std::uint64_t leewayNanoseconds) = 0;
  virtual void dispatch_source_set_event_handler(const DispatchTimerRef& timer, Block handler) = 0;
  virtual void dispatch_resume(const DispatchTimerRef& timer) = 0;
  // No firing begins afterwards; one that runs now goes on. May be called from the handler. Returns at once.
  virtual void dispatch_source_cancel(const DispatchTimerRef& timer) = 0;

  // Starts a thread that runs `entry`, which may run for ever: for what must keep its own time whatever the
  // queues do. It blocks all signals as workers do, and nobody waits for it. `name`: at most 15 characters.
  // Null when the system refuses a thread, and in a forked child.
  virtual DispatchThreadRef startThread(const std::string& name, Block entry) = 0;
};

using DispatchOnceToken = std::once_flag;
template <class Function>
void dispatch_once(DispatchOnceToken& token, Function&& function) {
  std::call_once(token, std::forward<Function>(function));
}

}  // namespace qbv
