// The part of a message send that is taken once per class and selector.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/portable/class_table.h"

namespace qbv {

namespace {

const char* orNull(const char* name) noexcept {
  return name == nullptr ? "(null)" : name;
}

[[noreturn]] void noSuchMethod(id receiver, SEL selector) {
  char where[32];
  std::snprintf(where, sizeof where, "%p", static_cast<void*>(receiver));
  const Class cls = receiver->isa;
  const bool isClass = Runtime::class_isMetaClass(cls);
  platform().log.NSLog(std::string(isClass ? "+[" : "-[") + orNull(Runtime::NSStringFromClass(cls)) + " " +
                       orNull(Runtime::NSStringFromSelector(selector)) +
                       "]: " + (isClass ? "the class" : "the object at ") + (isClass ? "" : where) +
                       " has no method of that name");
  std::abort();
}

}  // namespace

// Called with every register of the send put away. Never null.
extern "C" [[gnu::visibility("hidden")]] void* qbv_find_implementation(void* receiver, void* selector) {
  const id object = static_cast<id>(receiver);
  const SEL name = static_cast<SEL>(selector);
  const objc_method* const method = findMethod(object->isa, name);
  if (method == nullptr) noSuchMethod(object, name);
  object->isa->table->remember(object->isa, name);
  return reinterpret_cast<void*>(method->implementation.load(std::memory_order_acquire));
}

}  // namespace qbv
