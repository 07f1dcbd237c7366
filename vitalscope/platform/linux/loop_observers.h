// What the main thread's loops tell their observers.
#pragma once

#include "vitalscope/platform/portable/run_loop_observers.h"

namespace qbv::linux_backend {

namespace detail {
union NeverDestroyed {
  constexpr NeverDestroyed() : observers() {}
  ~NeverDestroyed() {}
  RunLoopObservers observers;
};
inline constinit NeverDestroyed loopObservers;
}  // namespace detail

// The observers of the main thread's loop, whichever it is. Any thread.
inline RunLoopObservers& loopObservers() noexcept {
  return detail::loopObservers.observers;
}

// Main thread, inside its loop. One load while nobody observes.
inline void tellActivity(CFRunLoopActivity activity) {
  loopObservers().tell(activity);
}

namespace detail {
// Loops that are told from their entry on and single turns under way, one in the other. Main thread only.
inline constinit int toldDepth = 0;
}  // namespace detail

// A loop of our own from its entry to its exit.
class LoopRun {
 public:
  LoopRun() {
    ++detail::toldDepth;
    tellActivity(kCFRunLoopEntry);
  }
  ~LoopRun() {
    tellActivity(kCFRunLoopExit);
    --detail::toldDepth;
  }
  LoopRun(const LoopRun&) = delete;
  LoopRun& operator=(const LoopRun&) = delete;
};

// Blocks that are run for somebody whose waits nobody tells us about: they begin with the sources and leave
// the loop, so that its sleep afterwards is not taken for work. Within a loop or turn that is told anyway it
// is part of that and tells nothing, nor does one that is not `alone`.
class SingleTurn {
 public:
  explicit SingleTurn(bool alone) : tells_(alone && detail::toldDepth == 0) {
    if (!tells_) return;
    ++detail::toldDepth;
    tellActivity(kCFRunLoopBeforeTimers);
    tellActivity(kCFRunLoopBeforeSources);
  }
  ~SingleTurn() {
    if (!tells_) return;
    tellActivity(kCFRunLoopExit);
    --detail::toldDepth;
  }
  SingleTurn(const SingleTurn&) = delete;
  SingleTurn& operator=(const SingleTurn&) = delete;

 private:
  const bool tells_;
};

}  // namespace qbv::linux_backend
