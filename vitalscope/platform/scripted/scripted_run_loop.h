// The main thread's loop, turned by the test.
#pragma once

#include <atomic>
#include <cstddef>
#include <mutex>
#include <optional>
#include <vector>

#include "vitalscope/platform/portable/application.h"
#include "vitalscope/platform/portable/run_loop_observers.h"
#include "vitalscope/platform/run_loop.h"
#include "vitalscope/platform/scripted/scripted_dispatch.h"

namespace qbv {

// "Main thread only" means here: the thread that plays the main thread. Observers hear what the test tells
// them (tell, willWait, didWake) and nothing else.
class ScriptedRunLoop final : public RunLoop {
 public:
  ScriptedRunLoop(ScriptedDispatch& dispatch, Runtime& runtime) : dispatch_(dispatch), runtime_(runtime) {}

  // Blocks for real until another thread or a block calls stop(), draining what other threads bring. A stop()
  // while nothing runs is forgotten.
  void run() override;
  // Drains once. When nothing waits, a positive timeout moves the scripted clock by it and drains then; a
  // negative one blocks for real until another thread brings work.
  bool runOnce(int timeoutMilliseconds) override;
  void stop() override;
  int descriptor() override { return -1; }
  bool drain() override { return dispatch_.drainMainQueue(); }
  bool mainLoopSeen() override { return seen_.load(); }
  const char* mainLoopKind() override { return seen_.load() ? "own loop" : "none seen"; }
  // Whether a pass counts as seen; true unless a test says otherwise. Turning the loop changes nothing.
  void setMainLoopSeen(bool seen) { seen_.store(seen); }
  // Drains until the main queue is empty.
  void drainAll();

  void willWait() override { tell(kCFRunLoopBeforeWaiting); }
  void didWake() override;
  // Every thread's, unless the test says that the calling thread has none.
  RunLoop* currentRunLoop() override { return onMainThread_.load() ? this : nullptr; }
  void setOnMainThread(bool onMainThread) { onMainThread_.store(onMainThread); }
  CFRunLoopObserverRef CFRunLoopObserverCreate(CFRunLoopActivity activities, bool repeats, std::int64_t order,
                                               CFRunLoopObserverCallBack callback, void* info) override;
  void CFRunLoopAddObserver(CFRunLoopObserverRef observer, CFRunLoopMode) override;
  // Fires one activity.
  void tell(CFRunLoopActivity activity) { observers_.tell(activity); }
  std::size_t observerCount() const { return observerCount_.load(); }

  // The first event defines what of "NSApplication" the test has not defined.
  void sendEvent(void (*handle)(void*), void* context) override;
  void postEvent(void (*handle)(void*), void* context) override;
  void routeToolkitEvents() override { toolkitEventsRouted_.store(true); }
  bool toolkitEventsRouted() const { return toolkitEventsRouted_.load(); }

 private:
  ScriptedDispatch& dispatch_;
  Runtime& runtime_;
  RunLoopObservers observers_;
  std::atomic<std::size_t> observerCount_{0};
  std::atomic<bool> onMainThread_{true};
  std::atomic<bool> toolkitEventsRouted_{false};
  std::optional<Application> application_;
  std::atomic<bool> seen_{true};
  std::mutex mutex_;
  std::vector<bool> stopped_;  // one for each run() that runs, the innermost last
};

}  // namespace qbv
