// The hook around the host application's dispatch of events.
#pragma once

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/runtime.h"

// Without fields; every instance is as good as any other.
class QBV_EXPORT QBVitalscopeApplicationEvent {
 public:
  // Puts qbv_sendEvent in place of "sendEvent:" of the run-time class "NSApplication", which then goes by the
  // name "qbv_sendEvent:", and has the loop's toolkit send its events there. Once per process, for good:
  // later calls do nothing. Where there is no such class or method, or the name "qbv_sendEvent:" is taken,
  // nothing changes then or later. Any thread.
  void trySwizzle();

  // The hook: tells the run-loop monitor that an event begins, has the application dispatch it, and tells
  // that it has ended. Runs as a method of the application object, on the main thread.
  static void qbv_sendEvent(qbv::id self, qbv::SEL selector, qbv::id event);
};
