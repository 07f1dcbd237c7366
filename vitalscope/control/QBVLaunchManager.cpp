#include "vitalscope/control/QBVLaunchManager.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "vitalscope/platform/platform.h"

using qbv::platform;

namespace {

struct LaunchState {
  std::atomic<double> processStartMilliseconds{0};
  std::mutex lock;
  double firstTurnSeconds = 0;  // since 1970; 0 until the main queue has turned
  double duration = 0;
  std::function<void(double)> receiver;
};

LaunchState& state() {
  static LaunchState* const instance = new LaunchState;
  return *instance;
}

void measure(double processStartMilliseconds) {
  LaunchState& launch = state();
  std::unique_lock lock(launch.lock);
  if (launch.firstTurnSeconds == 0)
    launch.firstTurnSeconds =
        platform().clock.CFAbsoluteTimeGetCurrent() + qbv::kCFAbsoluteTimeIntervalSince1970;
  launch.duration = launch.firstTurnSeconds - processStartMilliseconds / 1000;
  const double duration = launch.duration;
  const auto receiver = launch.receiver;
  lock.unlock();
  if (receiver) receiver(duration);
}

}  // namespace

double QBVLaunchManager::processStartTime() {
  std::atomic<double>& cached = state().processStartMilliseconds;
  if (cached.load(std::memory_order_relaxed) == 0)
    cached.store(platform().task.processStartTimeMilliseconds().value_or(0), std::memory_order_relaxed);
  return cached.load(std::memory_order_relaxed);
}

void QBVLaunchManager::askStartTime() {
  const double start = processStartTime();
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [start] { measure(start); });
}

double QBVLaunchManager::launchTime() {
  const std::lock_guard lock(state().lock);
  return state().duration;
}

void QBVLaunchManager::setLaunchTimeReceiver(std::function<void(double)> receiver) {
  LaunchState& launch = state();
  std::unique_lock lock(launch.lock);
  launch.receiver = std::move(receiver);
  const std::function<void(double)> told = launch.firstTurnSeconds != 0 ? launch.receiver : nullptr;
  const double duration = launch.duration;
  lock.unlock();
  if (told) told(duration);
}
