#include "vitalscope/platform/linux/dispatch_queues.h"

#include "vitalscope/platform/linux/fork_guard.h"

namespace qbv::linux_backend {

void SerialQueue::enqueue(WorkItem& item) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push(item);
    if (self_ != nullptr) return;
    self_ = shared_from_this();
  }
  pool_.push(*this);
}

bool SerialQueue::run() noexcept {
  WorkItem* item = nullptr;
  {
    const std::lock_guard lock(mutex_);
    item = waiting_.pop();
  }
  item->run();
  if (isForkedChild()) return false;

  std::shared_ptr<SerialQueue> last;  // outlives the lock: it may be the end of this object
  const std::lock_guard lock(mutex_);
  if (!waiting_.empty()) return true;
  last = std::move(self_);
  return false;
}

}  // namespace qbv::linux_backend
