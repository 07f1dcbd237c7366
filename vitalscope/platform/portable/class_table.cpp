#include "vitalscope/platform/portable/class_table.h"

namespace qbv {

namespace {

constexpr char kRootName[] = "NSObject";

objc_method* ownMethod(Class cls, SEL selector) noexcept {
  objc_method* method = cls->methods.load(std::memory_order_acquire);
  while (method != nullptr && method->selector != selector) method = method->next;
  return method;
}

objc_method* findMethod(Class cls, SEL selector) noexcept {
  for (; cls != nullptr; cls = cls->superclass)
    if (objc_method* const method = ownMethod(cls, selector)) return method;
  return nullptr;
}

}  // namespace

bool Runtime::class_isMetaClass(Class cls) noexcept {
  return cls != nullptr && cls->isMetaclass;
}

const char* Runtime::NSStringFromClass(Class cls) noexcept {
  return cls == nullptr ? nullptr : cls->name;
}

const char* Runtime::NSStringFromSelector(SEL selector) noexcept {
  return selector == nullptr ? nullptr : selector->name;
}

ClassTable::ClassTable() {
  {
    const std::lock_guard lock(mutex_);
    makeClass(kRootName, nullptr);
  }
  defineRootMethods();
}

ClassTable::~ClassTable() = default;

Class ClassTable::NSClassFromString(const char* name) {
  if (name == nullptr) return nullptr;
  const std::shared_lock lock(mutex_);
  const auto found = classOfName_.find(name);
  return found == classOfName_.end() ? nullptr : found->second;
}

SEL ClassTable::NSSelectorFromString(const char* name) {
  const std::string_view wanted = name == nullptr ? "" : name;
  {
    const std::shared_lock lock(mutex_);
    const auto found = selectorOfName_.find(wanted);
    if (found != selectorOfName_.end()) return found->second;
  }
  const std::lock_guard lock(mutex_);
  const auto found = selectorOfName_.find(wanted);
  if (found != selectorOfName_.end()) return found->second;
  const std::string& text = texts_.emplace_back(wanted);
  const SEL selector = &selectors_.emplace_back(objc_selector{text.c_str()});
  selectorOfName_.emplace(text, selector);
  return selector;
}

Class ClassTable::defineClass(const char* name, Class superclass) {
  if (name == nullptr) return nullptr;
  const std::lock_guard lock(mutex_);
  const auto found = classOfName_.find(name);
  if (found != classOfName_.end()) return found->second;
  return makeClass(name, superclass != nullptr ? superclass : classOfName_.at(kRootName));
}

Class ClassTable::makeClass(const char* name, Class superclass) {
  const std::string& text = texts_.emplace_back(name);
  objc_class& meta = classes_.emplace_back();
  objc_class& cls = classes_.emplace_back();
  // Every metaclass is an instance of the root metaclass, which is its own.
  meta.isa = superclass == nullptr ? &meta : superclass->isa->isa;
  meta.superclass = superclass == nullptr ? &cls : superclass->isa;
  meta.isMetaclass = true;
  cls.isa = &meta;
  cls.superclass = superclass;
  meta.name = cls.name = text.c_str();
  classOfName_.emplace(text, &cls);
  return &cls;
}

void ClassTable::addInstanceMethod(Class cls, SEL selector, IMP implementation, const char* types) {
  class_replaceMethod(cls, selector, implementation, types == nullptr ? "" : types);
}

void ClassTable::addClassMethod(Class cls, SEL selector, IMP implementation, const char* types) {
  if (cls != nullptr) addInstanceMethod(cls->isa, selector, implementation, types);
}

bool ClassTable::class_addMethod(Class cls, SEL selector, IMP implementation, const char* types) {
  if (cls == nullptr || selector == nullptr || implementation == nullptr) return false;
  const std::lock_guard lock(mutex_);
  if (ownMethod(cls, selector) != nullptr) return false;
  insertMethod(cls, selector, makeBody(implementation, types));
  return true;
}

IMP ClassTable::class_replaceMethod(Class cls, SEL selector, IMP implementation, const char* types) {
  if (cls == nullptr || selector == nullptr || implementation == nullptr) return nullptr;
  const std::lock_guard lock(mutex_);
  objc_method* const method = ownMethod(cls, selector);
  if (method == nullptr) {
    insertMethod(cls, selector, makeBody(implementation, types));
    return nullptr;
  }
  const MethodBody* const former = method->body.load(std::memory_order_relaxed);
  method->body.store(makeBody(implementation, types == nullptr ? former->types : types),
                     std::memory_order_release);
  return former->implementation;
}

const MethodBody* ClassTable::makeBody(IMP implementation, const char* types) {
  const std::string& text = texts_.emplace_back(types == nullptr ? "" : types);
  return &bodies_.emplace_back(MethodBody{implementation, text.c_str()});
}

void ClassTable::insertMethod(Class cls, SEL selector, const MethodBody* body) {
  objc_method& method = methods_.emplace_back();
  method.selector = selector;
  method.body.store(body, std::memory_order_relaxed);
  method.next = cls->methods.load(std::memory_order_relaxed);
  cls->methods.store(&method, std::memory_order_release);
}

id ClassTable::createInstance(Class cls) {
  if (cls == nullptr) return nullptr;
  const std::lock_guard lock(mutex_);
  return &instances_.emplace_back(InstanceBox{InstanceBox::Origin::table, {cls}}).object;
}

Method ClassTable::class_getInstanceMethod(Class cls, SEL selector) {
  return findMethod(cls, selector);
}

Method ClassTable::class_getClassMethod(Class cls, SEL selector) {
  return cls == nullptr ? nullptr : class_getInstanceMethod(cls->isa, selector);
}

void ClassTable::method_exchangeImplementations(Method one, Method other) {
  if (one == nullptr || other == nullptr) return;
  const std::lock_guard lock(mutex_);
  const MethodBody* const body = one->body.load(std::memory_order_relaxed);
  one->body.store(other->body.load(std::memory_order_relaxed), std::memory_order_release);
  other->body.store(body, std::memory_order_release);
}

IMP ClassTable::method_getImplementation(Method method) {
  return method == nullptr ? nullptr : method->body.load(std::memory_order_acquire)->implementation;
}

const char* ClassTable::method_getTypeEncoding(Method method) {
  return method == nullptr ? nullptr : method->body.load(std::memory_order_acquire)->types;
}

bool ClassTable::respondsToSelector(id receiver, SEL selector) {
  return receiver != nullptr && findMethod(receiver->isa, selector) != nullptr;
}

IMP ClassTable::methodForSelector(id receiver, SEL selector, const char** types) {
  const objc_method* const method = receiver == nullptr ? nullptr : findMethod(receiver->isa, selector);
  if (method == nullptr) return nullptr;
  const MethodBody* const body = method->body.load(std::memory_order_acquire);
  if (types != nullptr) *types = body->types;
  return body->implementation;
}

}  // namespace qbv
