// Who watches a loop, in the order in which they are called.
#pragma once

#include <atomic>

#include "vitalscope/platform/run_loop.h"

namespace qbv {

// Observers are only ever added, so a list that is being walked never changes: a new one takes its place.
// Never destroyed while its loop turns.
class QBV_EXPORT RunLoopObservers {
 public:
  constexpr RunLoopObservers() = default;
  ~RunLoopObservers();
  RunLoopObservers(const RunLoopObservers&) = delete;
  RunLoopObservers& operator=(const RunLoopObservers&) = delete;

  // See RunLoop. Any thread.
  static CFRunLoopObserverRef create(CFRunLoopActivity activities, bool repeats, std::int64_t order,
                                     CFRunLoopObserverCallBack callback, void* info);
  void add(CFRunLoopObserverRef observer);

  // Any thread; one load.
  bool any() const noexcept { return list_.load(std::memory_order_acquire) != nullptr; }
  // Calls the observers of this activity. The loop's thread only; may nest. No lock, no memory.
  void tell(CFRunLoopActivity activity) const {
    if (const List* const list = list_.load(std::memory_order_acquire)) tell(*list, activity);
  }

 private:
  struct List;
  static void tell(const List& list, CFRunLoopActivity activity);

  std::atomic<const List*> list_{nullptr};
};

}  // namespace qbv
