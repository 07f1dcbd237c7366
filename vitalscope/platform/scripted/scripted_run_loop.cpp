#include "vitalscope/platform/scripted/scripted_run_loop.h"

namespace qbv {

void ScriptedRunLoop::run() {
  std::unique_lock lock(mutex_);
  stopped_.push_back(false);
  while (!stopped_.back()) {
    lock.unlock();
    dispatch_.waitForMainQueue();
    dispatch_.drainMainQueue();
    lock.lock();
  }
  stopped_.pop_back();
}

bool ScriptedRunLoop::runOnce(int timeoutMilliseconds) {
  if (dispatch_.drainMainQueue()) return true;
  if (timeoutMilliseconds > 0) dispatch_.advance(timeoutMilliseconds / 1000.0);
  if (timeoutMilliseconds < 0) dispatch_.waitForMainQueue();
  return timeoutMilliseconds != 0 && dispatch_.drainMainQueue();
}

void ScriptedRunLoop::stop() {
  {
    const std::lock_guard lock(mutex_);
    if (stopped_.empty()) return;
    stopped_.back() = true;
  }
  dispatch_.wakeMainQueue();
}

void ScriptedRunLoop::didWake() {
  tell(kCFRunLoopAfterWaiting);
  tell(kCFRunLoopBeforeTimers);
  tell(kCFRunLoopBeforeSources);
}

CFRunLoopObserverRef ScriptedRunLoop::CFRunLoopObserverCreate(CFRunLoopActivity activities, bool repeats,
                                                              std::int64_t order,
                                                              CFRunLoopObserverCallBack callback,
                                                              void* info) {
  return RunLoopObservers::create(activities, repeats, order, callback, info);
}

void ScriptedRunLoop::CFRunLoopAddObserver(CFRunLoopObserverRef observer, CFRunLoopMode) {
  if (observer != nullptr) ++observerCount_;
  observers_.add(observer);
}

void ScriptedRunLoop::sendEvent(void (*handle)(void*), void* context) {
  if (!application_) application_.emplace(runtime_);
  application_->sendEvent(handle, context);
}

void ScriptedRunLoop::postEvent(void (*handle)(void*), void* context) {
  dispatch_.dispatch_async(dispatch_.dispatch_get_main_queue(),
                           [this, handle, context] { sendEvent(handle, context); });
}

void ScriptedRunLoop::drainAll() {
  while (dispatch_.drainMainQueue()) {
  }
}

}  // namespace qbv
