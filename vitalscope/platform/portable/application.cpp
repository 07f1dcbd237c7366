#include "vitalscope/platform/portable/application.h"

#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/portable/class_table.h"

namespace qbv {

namespace {

// An event lives as long as its dispatch.
struct EventObject {
  objc_object object;
  void (*handle)(void*);
  void* context;
};

template <class... Args>
bool sendPlain(Runtime& runtime, id receiver, SEL selector, Args... args) {
  const IMP method = runtime.methodForSelector(receiver, selector, nullptr);
  if (method != nullptr) reinterpret_cast<void (*)(id, SEL, Args...)>(method)(receiver, selector, args...);
  return method != nullptr;
}

void handleEvent(id self, SEL) {
  const auto& event = *reinterpret_cast<const EventObject*>(self);
  event.handle(event.context);
}

void dispatchEvent(id, SEL, id event) {
  Runtime& runtime = platform().runtime;
  sendPlain(runtime, event, runtime.NSSelectorFromString("handle"));
}

id theApplication(id self, SEL) {
  static const id instance = platform().runtime.createInstance(reinterpret_cast<Class>(self));
  return instance;
}

Class applicationClass(Runtime& runtime) {
  ClassDefinition application(runtime, "NSApplication");
  const auto lacks = [&](Method method) { return method == nullptr; };
  if (lacks(
          runtime.class_getClassMethod(application.cls(), runtime.NSSelectorFromString("sharedApplication"))))
    application.classMethod("sharedApplication", theApplication);
  if (lacks(runtime.class_getInstanceMethod(application.cls(), runtime.NSSelectorFromString("sendEvent:"))))
    application.method("sendEvent:", dispatchEvent);
  return application.cls();
}

}  // namespace

Application::Application(Runtime& runtime)
    : runtime_(runtime),
      sendEvent_(runtime.NSSelectorFromString("sendEvent:")),
      class_(applicationClass(runtime)),
      eventClass_(ClassDefinition(runtime, "QBVEvent").method("handle", handleEvent).cls()) {}

void Application::sendEvent(void (*handle)(void*), void* context) {
  EventObject event{{eventClass_}, handle, context};
  const id application = send<id>(runtime_, Runtime::classObject(class_), "sharedApplication");
  if (!sendPlain(runtime_, application, sendEvent_, &event.object)) handle(context);
}

}  // namespace qbv
