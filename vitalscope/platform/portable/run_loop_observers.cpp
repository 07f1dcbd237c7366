#include "vitalscope/platform/portable/run_loop_observers.h"

#include <algorithm>
#include <vector>

namespace qbv {

struct CFRunLoopObserver {
  const CFRunLoopActivity activities;
  const bool repeats;
  const std::int64_t order;
  const CFRunLoopObserverCallBack callback;
  void* const info;
  // The loop's thread only.
  bool done = false;
  bool running = false;
  CFRunLoopObserverRef older = nullptr;  // made before it
};

struct RunLoopObservers::List {
  std::vector<CFRunLoopObserverRef> observers;
  const List* before;  // the list that this one took the place of: a walk over it may be under way
};

namespace {

// Observers stay for ever, also when their loop has gone: whoever made one may still hold it.
constinit std::atomic<CFRunLoopObserverRef> newest{nullptr};

}  // namespace

RunLoopObservers::~RunLoopObservers() {
  const List* list = list_.load(std::memory_order_relaxed);
  while (list != nullptr) {
    const List* const before = list->before;
    delete list;
    list = before;
  }
}

CFRunLoopObserverRef RunLoopObservers::create(CFRunLoopActivity activities, bool repeats, std::int64_t order,
                                              CFRunLoopObserverCallBack callback, void* info) {
  if (callback == nullptr) return nullptr;
  auto* const made = new CFRunLoopObserver{activities, repeats, order, callback, info};
  made->older = newest.load(std::memory_order_relaxed);
  while (!newest.compare_exchange_weak(made->older, made, std::memory_order_release)) {
  }
  return made;
}

void RunLoopObservers::add(CFRunLoopObserverRef observer) {
  if (observer == nullptr) return;
  auto* const grown = new List;
  const List* present = list_.load(std::memory_order_acquire);
  do {
    grown->before = present;
    grown->observers = present == nullptr ? std::vector<CFRunLoopObserverRef>() : present->observers;
    const auto place =
        std::ranges::upper_bound(grown->observers, observer->order, {}, &CFRunLoopObserver::order);
    grown->observers.insert(place, observer);
  } while (!list_.compare_exchange_weak(present, grown, std::memory_order_acq_rel));
}

void RunLoopObservers::tell(const List& list, CFRunLoopActivity activity) {
  for (const CFRunLoopObserverRef observer : list.observers) {
    if ((observer->activities & activity) == 0 || observer->running || observer->done) continue;
    observer->done = !observer->repeats;
    observer->running = true;
    observer->callback(observer, activity, observer->info);
    observer->running = false;
  }
}

}  // namespace qbv
