#include "vitalscope/memory/QBObjectAllocMonitor.h"

#include <mutex>

#include "vitalscope/platform/live_objects.h"
#include "vitalscope/platform/platform.h"

namespace {

using namespace qbv;

constexpr char kRoot[] = "NSObject";

// What the root class's own methods were. To send the exchanged message again would find the same, at the
// price of a look-up for every object. Set before the exchange, and never again.
struct RootMethods {
  id (*alloc)(id, SEL);
  id (*allocWithZone)(id, SEL, void*);
  void (*dealloc)(id, SEL);
};
constinit RootMethods root{};

template <class Function>
void note(Function*& function, Method method) {
  function = reinterpret_cast<Function*>(platform().runtime.method_getImplementation(method));
}

std::int64_t answerLiveCount(id, SEL) {
  return NSObject_AllocMonitor::currentOcObjectLiveCount();
}

void noteRootMethods(Runtime& runtime, Class cls) {
  note(root.alloc, runtime.class_getClassMethod(cls, runtime.NSSelectorFromString("alloc")));
  note(root.allocWithZone, runtime.class_getClassMethod(cls, runtime.NSSelectorFromString("allocWithZone:")));
  note(root.dealloc, runtime.class_getInstanceMethod(cls, runtime.NSSelectorFromString("dealloc")));
}

void exchangeRootMethods() {
  LiveObjects::prepare();
  Runtime& runtime = platform().runtime;
  ClassDefinition category(runtime, kRoot);
  noteRootMethods(runtime, category.cls());
  category.classMethod("qb_alloc", NSObject_AllocMonitor::qb_alloc)
      .classMethod("qb_allocWithZone:", NSObject_AllocMonitor::qb_allocWithZone)
      .method("qb_dealloc", NSObject_AllocMonitor::qb_dealloc)
      .classMethod("currentOcObjectLiveCount", answerLiveCount);
  const auto selector = [&](const char* name) { return runtime.NSSelectorFromString(name); };
  exchangeMethod(selector("alloc"), selector("qb_alloc"), true);
  exchangeMethod(selector("allocWithZone:"), selector("qb_allocWithZone:"), true);
  exchangeMethod(selector("dealloc"), selector("qb_dealloc"), false);
}

}  // namespace

void NSObject_AllocMonitor::load() {
  static std::once_flag once;
  std::call_once(once, exchangeRootMethods);
}

qbv::id NSObject_AllocMonitor::qb_alloc(qbv::id self, qbv::SEL selector) {
  qbv::LiveObjects::add();
  return root.alloc(self, selector);
}

qbv::id NSObject_AllocMonitor::qb_allocWithZone(qbv::id self, qbv::SEL selector, void* zone) {
  qbv::LiveObjects::add();
  return root.allocWithZone(self, selector, zone);
}

void NSObject_AllocMonitor::qb_dealloc(qbv::id self, qbv::SEL selector) {
  qbv::LiveObjects::remove();
  root.dealloc(self, selector);
}

std::int64_t NSObject_AllocMonitor::currentOcObjectLiveCount() {
  return qbv::LiveObjects::count();
}

void exchangeMethod(qbv::SEL replaced, qbv::SEL replacement, bool classMethod) {
  qbv::Runtime& runtime = qbv::platform().runtime;
  const qbv::Class cls = runtime.NSClassFromString(kRoot);
  const auto method = [&](qbv::SEL selector) {
    return classMethod ? runtime.class_getClassMethod(cls, selector)
                       : runtime.class_getInstanceMethod(cls, selector);
  };
  runtime.method_exchangeImplementations(method(replaced), method(replacement));
}
