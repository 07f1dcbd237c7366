#include "vitalscope/platform/linux/dispatch_work.h"

#include <utility>

namespace qbv::linux_backend {

void WorkList::push(WorkItem& item) noexcept {
  item.next_ = nullptr;
  (head_ == nullptr ? head_ : tail_->next_) = &item;
  tail_ = &item;
}

WorkItem* WorkList::pop() noexcept {
  WorkItem* const first = head_;
  if (first != nullptr) head_ = std::exchange(first->next_, nullptr);
  return first;
}

bool BlockItem::run() noexcept {
  const Block block = std::move(block_);
  delete this;
  block();
  return false;
}

}  // namespace qbv::linux_backend
