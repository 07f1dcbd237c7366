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

void ScriptedRunLoop::drainAll() {
  while (dispatch_.drainMainQueue()) {
  }
}

}  // namespace qbv
