#include "vitalscope/platform/dispatch.h"

#include <memory>
#include <new>
#include <utility>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/dispatch_queues.h"
#include "vitalscope/platform/linux/dispatch_timers.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/run_loop_queue.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {

namespace {

// A reference that owns nothing, to a queue that is never destroyed.
DispatchQueueRef everlasting(TargetQueue& queue) {
  return DispatchQueueRef(DispatchQueueRef(), &queue);
}

// The timer itself, if anything may be done to it: nothing in a forked child, where its lock may be held for
// ever.
Timer* usable(const DispatchTimerRef& timer) {
  return isForkedChild() ? nullptr : static_cast<Timer*>(timer.get());
}

struct OwnThread final : DispatchThread {
  OwnThread(std::string text, Block block) : label(std::move(text)), entry(std::move(block)) {}
  const std::string& name() const noexcept override { return label; }

  const std::string label;
  const Block entry;
};

void runOwnThread(void* reference) {
  const std::unique_ptr<DispatchThreadRef> thread(static_cast<DispatchThreadRef*>(reference));
  static_cast<const OwnThread&>(**thread).entry();
}

// In a forked child blocks are taken and dropped, and nothing is done to timers.
class LinuxDispatch final : public Dispatch {
 public:
  DispatchQueueRef dispatch_queue_create(const std::string& label, QueueKind kind) override {
    if (kind == QueueKind::serial) return std::make_shared<SerialQueue>(label, pool_);
    return std::make_shared<ConcurrentQueue>(label, pool_);
  }

  DispatchQueueRef dispatch_get_global_queue() override { return global_; }
  DispatchQueueRef dispatch_get_main_queue() override { return main_; }

  void dispatch_async(const DispatchQueueRef& queue, Block block) override {
    if (queue == nullptr || !block || isForkedChild()) return;
    if (auto* const item = new (std::nothrow) BlockItem(std::move(block)))
      static_cast<TargetQueue&>(*queue).enqueue(*item);
  }

  DispatchTimerRef dispatch_source_create(const DispatchQueueRef& queue) override {
    return std::make_shared<Timer>(std::static_pointer_cast<TargetQueue>(queue), TimerThread::shared());
  }

  void dispatch_source_set_timer(const DispatchTimerRef& timer, std::uint64_t intervalNanoseconds,
                                 std::uint64_t leewayNanoseconds) override {
    if (Timer* const own = usable(timer)) own->setInterval(intervalNanoseconds, leewayNanoseconds);
  }

  void dispatch_source_set_event_handler(const DispatchTimerRef& timer, Block handler) override {
    if (Timer* const own = usable(timer)) own->setHandler(std::move(handler));
  }

  void dispatch_resume(const DispatchTimerRef& timer) override {
    if (Timer* const own = usable(timer)) own->resume();
  }

  void dispatch_source_cancel(const DispatchTimerRef& timer) override {
    if (Timer* const own = usable(timer)) own->cancel();
  }

  DispatchThreadRef startThread(const std::string& name, Block entry) override {
    if (!entry || isForkedChild()) return nullptr;
    const auto thread = std::make_shared<const OwnThread>(name, std::move(entry));
    auto reference = std::make_unique<DispatchThreadRef>(thread);
    if (!linux_backend::startThread(thread->label.c_str(), kHandlerStackBytes, runOwnThread, reference.get()))
      return nullptr;
    static_cast<void>(reference.release());
    return thread;
  }

 private:
  WorkerPool& pool_ = WorkerPool::shared();
  const DispatchQueueRef global_ = everlasting(*new ConcurrentQueue("global", pool_));
  const DispatchQueueRef main_ = everlasting(MainQueue::shared());
};

}  // namespace

Dispatch& dispatch() {
  static LinuxDispatch* const instance = new LinuxDispatch;
  return *instance;
}

}  // namespace qbv::linux_backend
