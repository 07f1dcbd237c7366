// The host's main loop: who watches it, and what it dispatches.
#include <atomic>
#include <memory>
#include <utility>

#include "host/quibvitalscope_host.hpp"
#include "vitalscope/platform/platform.h"

namespace qbv::host {

namespace {

constexpr char kMonitor[] = "QBVitalscopeANRMonitor_RunLoop";

void startRunLoopMonitor() {
  Runtime& runtime = platform().runtime;
  const id monitor =
      send<id>(runtime, Runtime::classObject(runtime.NSClassFromString(kMonitor)), "sharedInstance");
  send<void>(runtime, monitor, "start");
}

}  // namespace

bool watchRunLoop() {
  static constinit std::atomic_flag asked;
  if (platform().runtime.NSClassFromString(kMonitor) == nullptr) return false;
  if (asked.test_and_set()) return true;
  Dispatch& dispatch = platform().dispatch;
  if (platform().runLoop.currentRunLoop() != nullptr)
    startRunLoopMonitor();
  else
    dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), startRunLoopMonitor);
  return true;
}

void loopWillWait() {
  platform().runLoop.willWait();
}

void loopDidWake() {
  platform().runLoop.didWake();
}

void sendEvent(const std::function<void()>& handle) {
  const auto call = [](void* function) { (*static_cast<const std::function<void()>*>(function))(); };
  if (handle) platform().runLoop.sendEvent(call, const_cast<std::function<void()>*>(&handle));
}

void postEvent(std::function<void()> handle) {
  if (!handle) return;
  const auto call = [](void* function) {
    const std::unique_ptr<std::function<void()>> owned(static_cast<std::function<void()>*>(function));
    (*owned)();
  };
  platform().runLoop.postEvent(call, new std::function<void()>(std::move(handle)));
}

}  // namespace qbv::host
