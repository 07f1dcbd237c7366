// Classes and methods found by name at run time: how the host answers questions without being linked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <type_traits>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/objc.h"

namespace qbv {

// Any thread. Classes, selectors and methods are never removed. Names are copied.
class QBV_EXPORT Runtime {
 public:
  virtual ~Runtime() = default;

  // Null when no class has that name.
  virtual Class NSClassFromString(const char* name) = 0;
  // The one selector of that name, the same in every table; made when it is new. Never null, never freed.
  virtual SEL NSSelectorFromString(const char* name) = 0;

  // A new class below `superclass` (null: below "NSObject"); the present class when the name is taken.
  virtual Class defineClass(const char* name, Class superclass) = 0;
  // Adds a method or replaces the class's own of that selector. `types` is the usual encoding, the result
  // first
  // ("@@:" object, "*@:" UTF-8 text owned by the callee, "q@:" 64-bit integer, "B@:" bool, "v@:@" one
  // argument).
  virtual void addInstanceMethod(Class cls, SEL selector, IMP implementation, const char* types) = 0;
  virtual void addClassMethod(Class cls, SEL selector, IMP implementation, const char* types) = 0;
  // As addInstanceMethod, but only when the class itself (not one above it) has no method of that selector:
  // false, and nothing changed, when it has. Given a metaclass it adds a class method.
  virtual bool class_addMethod(Class cls, SEL selector, IMP implementation, const char* types) = 0;
  // As addInstanceMethod; answers what the class's own method was, null when it had none. Null `types` keeps
  // the encoding of the method replaced.
  virtual IMP class_replaceMethod(Class cls, SEL selector, IMP implementation, const char* types) = 0;
  // A new instance without fields; it lives for ever, whatever is sent to it. One that can be given back
  // comes from the class methods "alloc" and "allocWithZone:" of the root class "NSObject", and goes by its
  // method "dealloc".
  virtual id createInstance(Class cls) = 0;

  // The method that an instance of the class, or the class itself, would find; null when there is none.
  virtual Method class_getInstanceMethod(Class cls, SEL selector) = 0;
  virtual Method class_getClassMethod(Class cls, SEL selector) = 0;
  // From now on each does what the other did, with the other's encoding. A message sent meanwhile on another
  // thread finds either. Null changes nothing.
  virtual void method_exchangeImplementations(Method one, Method other) = 0;
  virtual IMP method_getImplementation(Method method) = 0;        // null for null
  virtual const char* method_getTypeEncoding(Method method) = 0;  // null for null; never freed

  static id classObject(Class cls) noexcept { return reinterpret_cast<id>(cls); }
  // The class whose methods the object's messages find: for a class, its metaclass. Null for nil.
  static Class object_getClass(id object) noexcept { return object == nullptr ? nullptr : object->isa; }
  // False for null.
  static bool class_isMetaClass(Class cls) noexcept;
  // A metaclass has its class's name. Null for null, otherwise never freed.
  static const char* NSStringFromClass(Class cls) noexcept;
  static const char* NSStringFromSelector(SEL selector) noexcept;

  // Whether a message would find a method (inherited ones count). False for nil.
  virtual bool respondsToSelector(id receiver, SEL selector) = 0;
  // The method a message would find and its encoding; null when there is none.
  virtual IMP methodForSelector(id receiver, SEL selector, const char** types) = 0;
};

namespace detail {
// NOLINTBEGIN(bugprone-branch-clone): in a template every branch but one looks alike
template <class T>
constexpr const char* typeEncoding() {
  if constexpr (std::is_void_v<T>)
    return "v";
  else if constexpr (std::is_same_v<T, void*>)
    return "^v";
  else if constexpr (std::is_same_v<T, bool>)
    return "B";
  else if constexpr (std::is_same_v<T, id>)
    return "@";
  else if constexpr (std::is_same_v<T, Class>)
    return "#";
  else if constexpr (std::is_same_v<T, SEL>)
    return ":";
  else if constexpr (std::is_same_v<T, const char*>)
    return "*";
  else if constexpr (std::is_same_v<T, int>)
    return "i";
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return "q";
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return "Q";
  else if constexpr (std::is_same_v<T, unsigned>)
    return "I";
  else if constexpr (std::is_same_v<T, float>)
    return "f";
  else if constexpr (std::is_same_v<T, double>)
    return "d";
  else if constexpr (std::is_same_v<T, long double>)
    return "D";
  else if constexpr (std::is_pointer_v<T>)
    return "^v";
  else if constexpr (std::is_class_v<T>)
    return "{?}";  // the checking send knows no structures
  else
    static_assert(sizeof(T) == 0, "no encoding for this type");
}
// NOLINTEND(bugprone-branch-clone)
template <class R, class... Args>
std::string methodEncoding() {
  return (std::string(typeEncoding<R>()) + "@:" + ... + typeEncoding<Args>());
}
QBV_EXPORT bool encodingsMatch(const char* present, const std::string& wanted) noexcept;
}  // namespace detail

// Sends a message of zero or one object argument. R() when the receiver is nil, does not answer the selector,
// or its method's encoding is another one. Runs the host's code on the calling thread. A `const char*` result
// belongs to the callee: copy it at once.
template <class R, class... Args>
R send(Runtime& runtime, id receiver, const char* selectorName, Args... args) {
  static_assert(sizeof...(Args) <= 1);
  const SEL selector = runtime.NSSelectorFromString(selectorName);
  const char* types = nullptr;
  const IMP method = runtime.methodForSelector(receiver, selector, &types);
  if (method == nullptr || !detail::encodingsMatch(types, detail::methodEncoding<R, Args...>())) return R();
  return reinterpret_cast<R (*)(id, SEL, Args...)>(method)(receiver, selector, args...);
}

// The same for a result of any integer type (encodings B c i q Q and the like), widened; nothing where send
// gives R().
QBV_EXPORT std::optional<std::int64_t> sendInteger(Runtime& runtime, id receiver, const char* selectorName);

// Defines a class and its methods:
//   ClassDefinition(rt, "NSBundle").classMethod("isLogVersion", +[](id, SEL) -> bool { return true; });
class ClassDefinition {
 public:
  ClassDefinition(Runtime& runtime, const char* name, Class superclass = nullptr)
      : runtime_(runtime), class_(runtime.defineClass(name, superclass)) {}

  template <class R, class... Args>
  ClassDefinition& classMethod(const char* selector, R (*implementation)(id, SEL, Args...)) {
    runtime_.addClassMethod(class_, runtime_.NSSelectorFromString(selector),
                            reinterpret_cast<IMP>(implementation),
                            detail::methodEncoding<R, Args...>().c_str());
    return *this;
  }
  template <class R, class... Args>
  ClassDefinition& method(const char* selector, R (*implementation)(id, SEL, Args...)) {
    runtime_.addInstanceMethod(class_, runtime_.NSSelectorFromString(selector),
                               reinterpret_cast<IMP>(implementation),
                               detail::methodEncoding<R, Args...>().c_str());
    return *this;
  }
  Class cls() const noexcept { return class_; }
  id instance() const { return runtime_.createInstance(class_); }

 private:
  Runtime& runtime_;
  Class class_;
};

}  // namespace qbv
