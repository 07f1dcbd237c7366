// What the main run loop tells its observers.
#pragma once

#include <utility>
#include <vector>

#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {

inline constexpr CFRunLoopActivity kEntry = kCFRunLoopEntry, kTimers = kCFRunLoopBeforeTimers,
                                   kSources = kCFRunLoopBeforeSources, kSleep = kCFRunLoopBeforeWaiting,
                                   kWake = kCFRunLoopAfterWaiting, kExit = kCFRunLoopExit, kBlock = 1u << 20,
                                   kTimeout = 1u << 21;  // put in between by the tests

inline std::vector<CFRunLoopActivity> told;
// Notes what the loop tells from now on.
inline void observe() {
  const auto note = [](CFRunLoopObserverRef, CFRunLoopActivity activity, void*) { told.push_back(activity); };
  runLoop().CFRunLoopAddObserver(
      runLoop().CFRunLoopObserverCreate(kCFRunLoopAllActivities, true, 0, note, nullptr),
      kCFRunLoopCommonModes);
}
// What was told since the last call.
inline std::vector<CFRunLoopActivity> heard() {
  return std::exchange(told, {});
}

inline void post(Block block) {
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), std::move(block));
}

}  // namespace qbv::linux_backend
