#include "vitalscope/hang/QBVitalscopeApplicationEvent.h"

#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/message.h"
#include "vitalscope/platform/platform.h"

using qbv::Class;
using qbv::IMP;
using qbv::Method;
using qbv::platform;
using qbv::Runtime;
using qbv::SEL;
using namespace qbv::literals;

namespace {

// Answers whether events pass through the hook now.
bool install(Runtime& runtime) {
  const Class application = runtime.NSClassFromString("NSApplication");
  const SEL dispatch = runtime.NSSelectorFromString("sendEvent:");
  const SEL hookSelector = runtime.NSSelectorFromString("qbv_sendEvent:");
  const Class own = qbv::ClassDefinition(runtime, "QBVitalscopeApplicationEvent")
                        .method("qbv_sendEvent:", QBVitalscopeApplicationEvent::qbv_sendEvent)
                        .cls();
  const Method former = runtime.class_getInstanceMethod(application, dispatch);
  const Method hook = runtime.class_getInstanceMethod(own, hookSelector);
  if (application == nullptr || former == nullptr) return false;

  const IMP hookCode = runtime.method_getImplementation(hook);
  const char* const types = runtime.method_getTypeEncoding(hook);
  if (!runtime.class_addMethod(application, hookSelector, hookCode, types)) return false;
  const Method added = runtime.class_getInstanceMethod(application, hookSelector);
  if (added == nullptr) return false;
  if (runtime.class_addMethod(application, dispatch, hookCode, types))
    runtime.class_replaceMethod(application, hookSelector, runtime.method_getImplementation(former),
                                runtime.method_getTypeEncoding(former));
  else
    runtime.method_exchangeImplementations(former, added);
  return true;
}

}  // namespace

void QBVitalscopeApplicationEvent::trySwizzle() {
  static qbv::DispatchOnceToken once;
  qbv::dispatch_once(once, [] {
    if (install(platform().runtime)) platform().runLoop.routeToolkitEvents();
  });
}

void QBVitalscopeApplicationEvent::qbv_sendEvent(qbv::id self, SEL, qbv::id event) {
  QBVitalscopeANRMonitor_RunLoop::signalEventStart();
  qbv::send(self, "qbv_sendEvent:"_sel, event);
  QBVitalscopeANRMonitor_RunLoop::signalEventEnd();
}
