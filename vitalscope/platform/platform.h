// The set of platform areas that the monitors work on.
#pragma once

#include <type_traits>

#include "vitalscope/platform/allocator.h"
#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/dates.h"
#include "vitalscope/platform/devices.h"
#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/files.h"
#include "vitalscope/platform/host_info.h"
#include "vitalscope/platform/images.h"
#include "vitalscope/platform/log.h"
#include "vitalscope/platform/notifications.h"
#include "vitalscope/platform/processes.h"
#include "vitalscope/platform/run_loop.h"
#include "vitalscope/platform/runtime.h"
#include "vitalscope/platform/task.h"
#include "vitalscope/platform/windows.h"

namespace qbv {

struct Platform {
  Task& task;
  Images& images;
  Runtime& runtime;
  Dispatch& dispatch;
  RunLoop& runLoop;
  Notifications& notifications;
  Processes& processes;
  Files& files;
  Clock& clock;
  Dates& dates;
  Log& log;
  HostInfo& hostInfo;
  Allocator& allocator;
  Devices& devices;
  Windows& windows;

  // The same set with one area replaced. Any thread; both must outlive what works on the result.
  template <class Replacement>
  Platform with(Replacement& area) const {
    const auto pick = [&area]<class Area>(Area& own) -> Area& {
      if constexpr (std::is_base_of_v<Area, Replacement>)
        return area;
      else
        return own;
    };
    return {pick(task),          pick(images),    pick(runtime),   pick(dispatch), pick(runLoop),
            pick(notifications), pick(processes), pick(files),     pick(clock),    pick(dates),
            pick(log),           pick(hostInfo),  pick(allocator), pick(devices),  pick(windows)};
  }
};

// The set in use: the real one of this system unless a test installed another. Any thread; one atomic load.
QBV_EXPORT const Platform& platform() noexcept;

// Puts another set in place until it is destroyed, then the one before it. For tests: monitors are
// singletons, so install it before the first of them is made, and keep it to the end of the process or until
// all their work is done.
class QBV_EXPORT ScopedPlatform {
 public:
  explicit ScopedPlatform(const Platform& replacement);
  ~ScopedPlatform();
  ScopedPlatform(const ScopedPlatform&) = delete;
  ScopedPlatform& operator=(const ScopedPlatform&) = delete;

 private:
  const Platform* previous_;
};

namespace linux_backend {
// The real backend; every area is made on first use and never destroyed.
QBV_EXPORT const Platform& platform();
}  // namespace linux_backend

// Ends the process with a message that names what did not hold:
// "Assertion failed: (expression), function f, file F, line N." Any thread.
[[noreturn]] QBV_EXPORT void assertionFailure(const char* function, const char* file, int line,
                                              const char* expression);

}  // namespace qbv
