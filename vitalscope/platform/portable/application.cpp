#include "vitalscope/platform/portable/application.h"

#include "vitalscope/platform/message.h"
#include "vitalscope/platform/platform.h"

namespace qbv {

using namespace literals;

namespace {

// An event lives as long as its dispatch.
struct EventObject {
  objc_object object;
  void (*handle)(void*);
  void* context;
};

void handleEvent(id self, SEL) {
  const auto& event = *reinterpret_cast<const EventObject*>(self);
  event.handle(event.context);
}

void dispatchEvent(id, SEL, id event) {
  if (platform().runtime.respondsToSelector(event, "handle"_sel)) send(event, "handle"_sel);
}

id theApplication(id self, SEL) {
  static const id instance = platform().runtime.createInstance(reinterpret_cast<Class>(self));
  return instance;
}

Class applicationClass(Runtime& runtime) {
  ClassDefinition application(runtime, "NSApplication");
  if (runtime.class_getClassMethod(application.cls(), "sharedApplication"_sel) == nullptr)
    application.classMethod("sharedApplication", theApplication);
  if (runtime.class_getInstanceMethod(application.cls(), "sendEvent:"_sel) == nullptr)
    application.method("sendEvent:", dispatchEvent);
  return application.cls();
}

}  // namespace

Application::Application(Runtime& runtime)
    : runtime_(runtime),
      class_(applicationClass(runtime)),
      eventClass_(ClassDefinition(runtime, "QBVEvent").method("handle", handleEvent).cls()) {}

void Application::sendEvent(void (*handle)(void*), void* context) {
  EventObject event{{eventClass_}, handle, context};
  const id application = send<id>(runtime_, Runtime::classObject(class_), "sharedApplication");
  if (runtime_.respondsToSelector(application, "sendEvent:"_sel))
    send(application, "sendEvent:"_sel, &event.object);
  else
    handle(context);
}

}  // namespace qbv
