#include "vitalscope/platform/run_loop.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>
#include <mutex>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/dispatch_timers.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/gtk_events.h"
#include "vitalscope/platform/linux/library_watch.h"
#include "vitalscope/platform/linux/loop_observers.h"
#include "vitalscope/platform/linux/loop_passes.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/run_loop_queue.h"
#include "vitalscope/platform/portable/application.h"

namespace qbv::linux_backend {

namespace {

using SteadyClock = std::chrono::steady_clock;

// How often the loop looks for blocks when the process has no descriptor left to wake it with.
constexpr int kBlindMilliseconds = 50;

int blindTimeout(int timeoutMilliseconds) {
  return timeoutMilliseconds < 0 ? kBlindMilliseconds : std::min(timeoutMilliseconds, kBlindMilliseconds);
}

int millisecondsUntil(SteadyClock::time_point deadline) {
  using std::chrono::milliseconds;
  const auto left = std::chrono::ceil<milliseconds>(deadline - SteadyClock::now()).count();
  return static_cast<int>(std::clamp<milliseconds::rep>(left, 0, std::numeric_limits<int>::max()));
}

// Answers when the descriptor is readable or the time is over; a signal does not cut the wait short.
void waitReadable(int descriptor, int timeoutMilliseconds) {
  const bool endless = timeoutMilliseconds < 0;
  const auto deadline = SteadyClock::now() + std::chrono::milliseconds(timeoutMilliseconds);
  pollfd entry{descriptor, POLLIN, 0};
  while (poll(&entry, 1, endless ? -1 : millisecondsUntil(deadline)) < 0 && errno == EINTR) {
  }
}

class LinuxRunLoop final : public RunLoop {
 public:
  void run() override;
  bool runOnce(int timeoutMilliseconds) override;
  void stop() override;
  int descriptor() override { return queue_.descriptor(); }
  bool drain() override;
  bool mainLoopSeen() override;
  const char* mainLoopKind() override;
  void willWait() override;
  void didWake() override;

  RunLoop* currentRunLoop() override { return onMainThread() ? this : nullptr; }
  CFRunLoopObserverRef CFRunLoopObserverCreate(CFRunLoopActivity activities, bool repeats, std::int64_t order,
                                               CFRunLoopObserverCallBack callback, void* info) override {
    return RunLoopObservers::create(activities, repeats, order, callback, info);
  }
  void CFRunLoopAddObserver(CFRunLoopObserverRef observer, CFRunLoopMode) override {
    loopObservers().add(observer);
  }

  void sendEvent(void (*handle)(void*), void* context) override { application_.sendEvent(handle, context); }
  void postEvent(void (*handle)(void*), void* context) override;
  void routeToolkitEvents() override { routeGtkEvents(); }

 private:
  // One run() that has not returned yet; the innermost is the head of the list.
  struct Run {
    Run* outer;
    bool stopped = false;
  };

  bool pass(int timeoutMilliseconds);
  bool stopped(const Run& run);

  MainQueue& queue_ = MainQueue::shared();
  TimerThread& timers_ = TimerThread::shared();
  Application application_{runtime()};
  bool hostTellsWaits_ = false;  // main thread only
  std::mutex mutex_;
  Run* innermost_ = nullptr;
};

bool LinuxRunLoop::pass(int timeoutMilliseconds) {
  const int wake = queue_.descriptor();
  if (wake < 0) timeoutMilliseconds = blindTimeout(timeoutMilliseconds);
  noteLoopPass(LoopKind::own);
  tellActivity(kCFRunLoopBeforeTimers);
  tellActivity(kCFRunLoopBeforeSources);
  const bool tellSleep = timeoutMilliseconds != 0 && loopObservers().any() && !queue_.hasWork();
  if (tellSleep) tellActivity(kCFRunLoopBeforeWaiting);
  waitReadable(wake, timers_.shortenedWait(timeoutMilliseconds));
  timers_.fireOfMainQueue();
  if (tellSleep) tellActivity(kCFRunLoopAfterWaiting);
  return queue_.drain();
}

bool LinuxRunLoop::runOnce(int timeoutMilliseconds) {
  const LoopRun run;
  return pass(timeoutMilliseconds);
}

bool LinuxRunLoop::drain() {
  noteLoopPass(LoopKind::descriptor);
  const SingleTurn turn(!hostTellsWaits_);
  return queue_.drain();
}

void LinuxRunLoop::willWait() {
  hostTellsWaits_ = true;
  tellActivity(kCFRunLoopBeforeWaiting);
}

void LinuxRunLoop::didWake() {
  noteLoopPass(LoopKind::descriptor);
  tellActivity(kCFRunLoopAfterWaiting);
  tellActivity(kCFRunLoopBeforeTimers);
  tellActivity(kCFRunLoopBeforeSources);
}

void LinuxRunLoop::postEvent(void (*handle)(void*), void* context) {
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(),
                            [this, handle, context] { sendEvent(handle, context); });
}

bool LinuxRunLoop::mainLoopSeen() {
  lookForMainLoopSoon();
  return latestLoop() != LoopKind::none;
}

const char* LinuxRunLoop::mainLoopKind() {
  switch (latestLoop()) {
    case LoopKind::own:
      return "own loop";
    case LoopKind::glib:
      return "GLib";
    case LoopKind::descriptor:
      return "descriptor";
    case LoopKind::none:
      break;
  }
  return "none seen";
}

void LinuxRunLoop::run() {
  if (isForkedChild()) return;
  Run self{nullptr};
  {
    const std::lock_guard lock(mutex_);
    self.outer = innermost_;
    innermost_ = &self;
  }
  {
    const LoopRun told;
    while (!isForkedChild() && !stopped(self)) pass(-1);
  }
  if (isForkedChild()) return;
  const std::lock_guard lock(mutex_);
  innermost_ = self.outer;
}

bool LinuxRunLoop::stopped(const Run& run) {
  const std::lock_guard lock(mutex_);
  return run.stopped;
}

void LinuxRunLoop::stop() {
  if (isForkedChild()) return;
  {
    const std::lock_guard lock(mutex_);
    if (innermost_ == nullptr) return;
    innermost_->stopped = true;
  }
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), [] {});  // ends the wait
}

}  // namespace

RunLoop& runLoop() {
  static LinuxRunLoop* const instance = new LinuxRunLoop;
  return *instance;
}

}  // namespace qbv::linux_backend
