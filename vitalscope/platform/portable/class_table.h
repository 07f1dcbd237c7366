// The table of classes, selectors and methods behind Runtime.
#pragma once

#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>

#include "vitalscope/platform/portable/method_cache.h"
#include "vitalscope/platform/runtime.h"

namespace qbv {

// An instance and, before it, where its memory is from.
struct InstanceBox {
  enum class Origin : std::uintptr_t { table, heap } origin;
  objc_object object;
};

// What a method does at present: replaced as a whole, so that code and encoding always belong together.
struct MethodBody {
  IMP implementation;
  const char* types;
};

// The message send reads selector and implementation at these places (message_send_*.S).
struct objc_method {
  SEL selector = nullptr;
  std::atomic<IMP> implementation{nullptr};  // the body's own, one step nearer
  std::atomic<const MethodBody*> body{nullptr};
  objc_method* next = nullptr;  // older methods of the same class
};

class ClassTable;

// The message send reads the first two (message_send_*.S).
struct objc_class {
  objc_class* isa = nullptr;
  std::atomic<MethodCache*> cache{&MethodCache::empty};
  objc_class* superclass =
      nullptr;                 // null for the root class only; the root metaclass is below the root class
  const char* name = nullptr;  // a metaclass has its class's name
  std::atomic<objc_method*> methods{nullptr};
  ClassTable* table = nullptr;
  bool isMetaclass = false;
};

// The method that an object of the class finds; null when there is none. Any thread, no lock, no allocation.
objc_method* findMethod(Class cls, SEL selector) noexcept;

// Look-ups of methods take no lock; those of names take a shared one. Nothing is removed or freed before the
// table itself, and instances of createInstance not before that either.
class QBV_EXPORT ClassTable final : public Runtime {
 public:
  ClassTable();
  ~ClassTable() override;
  ClassTable(const ClassTable&) = delete;
  ClassTable& operator=(const ClassTable&) = delete;

  Class NSClassFromString(const char* name) override;
  SEL NSSelectorFromString(const char* name) override;
  Class defineClass(const char* name, Class superclass) override;
  void addInstanceMethod(Class cls, SEL selector, IMP implementation, const char* types) override;
  void addClassMethod(Class cls, SEL selector, IMP implementation, const char* types) override;
  bool class_addMethod(Class cls, SEL selector, IMP implementation, const char* types) override;
  IMP class_replaceMethod(Class cls, SEL selector, IMP implementation, const char* types) override;
  id createInstance(Class cls) override;
  Method class_getInstanceMethod(Class cls, SEL selector) override;
  Method class_getClassMethod(Class cls, SEL selector) override;
  void method_exchangeImplementations(Method one, Method other) override;
  IMP method_getImplementation(Method method) override;
  const char* method_getTypeEncoding(Method method) override;
  bool respondsToSelector(id receiver, SEL selector) override;
  IMP methodForSelector(id receiver, SEL selector, const char** types) override;

  // From now on the class's cache knows the method that it has for the selector. Does nothing when there is
  // none, no memory is left or another thread is changing the table: caches save time and nothing else.
  void remember(Class cls, SEL selector) noexcept;

 private:
  void defineRootMethods();
  Class makeClass(const char* name, Class superclass);
  // Both with the lock held and nothing null.
  void insertMethod(Class cls, SEL selector, const MethodBody* body);
  void correctCaches(Class changed, SEL selector) noexcept;
  const MethodBody* makeBody(IMP implementation, const char* types);

  std::shared_mutex mutex_;
  std::deque<std::string> texts_;
  std::deque<objc_class> classes_;
  std::deque<objc_method> methods_;
  std::deque<MethodBody> bodies_;
  std::deque<InstanceBox> instances_;
  MethodCaches caches_;
  std::map<std::string_view, Class> classOfName_;
};

}  // namespace qbv
