#include "vitalscope/platform/portable/class_table.h"

#include "vitalscope/platform/portable/selectors.h"

namespace qbv {

namespace {

constexpr char kRootName[] = "NSObject";

objc_method* ownMethod(Class cls, SEL selector) noexcept {
  objc_method* method = cls->methods.load(std::memory_order_acquire);
  while (method != nullptr && method->selector != selector) method = method->next;
  return method;
}

void giveBody(objc_method& method, const MethodBody* body) noexcept {
  method.body.store(body, std::memory_order_release);
  method.implementation.store(body->implementation, std::memory_order_release);
}

bool isBelow(Class cls, Class ancestor) noexcept {
  while (cls != nullptr && cls != ancestor) cls = cls->superclass;
  return cls != nullptr;
}

}  // namespace

objc_method* findMethod(Class cls, SEL selector) noexcept {
  for (; cls != nullptr; cls = cls->superclass)
    if (objc_method* const method = ownMethod(cls, selector)) return method;
  return nullptr;
}

bool Runtime::class_isMetaClass(Class cls) noexcept {
  return cls != nullptr && cls->isMetaclass;
}

const char* Runtime::NSStringFromClass(Class cls) noexcept {
  return cls == nullptr ? nullptr : cls->name;
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
  return selectorNamed(name);
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
  meta.table = cls.table = this;
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
  giveBody(*method, makeBody(implementation, types == nullptr ? former->types : types));
  return former->implementation;
}

const MethodBody* ClassTable::makeBody(IMP implementation, const char* types) {
  const std::string& text = texts_.emplace_back(types == nullptr ? "" : types);
  return &bodies_.emplace_back(MethodBody{implementation, text.c_str()});
}

void ClassTable::insertMethod(Class cls, SEL selector, const MethodBody* body) {
  objc_method& method = methods_.emplace_back();
  method.selector = selector;
  giveBody(method, body);
  method.next = cls->methods.load(std::memory_order_relaxed);
  cls->methods.store(&method, std::memory_order_release);
  correctCaches(cls, selector);
}

// A class that inherited another method until now, or had cached one from further up.
void ClassTable::correctCaches(Class changed, SEL selector) noexcept {
  for (objc_class& cls : classes_) {
    const MethodCache* const cache = cls.cache.load(std::memory_order_relaxed);
    if (cache->find(selector) == nullptr || !isBelow(&cls, changed)) continue;
    caches_.put(cls.cache, findMethod(&cls, selector));
  }
}

void ClassTable::remember(Class cls, SEL selector) noexcept {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return;
  // Looked up once more: since the caller found a method, another may have taken its place.
  if (objc_method* const method = findMethod(cls, selector)) caches_.put(cls->cache, method);
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

// `other` first: when it is to replace `one` and calls the former code under its own name, no thread ever
// finds the replacement under both names and goes round for ever.
void ClassTable::method_exchangeImplementations(Method one, Method other) {
  if (one == nullptr || other == nullptr) return;
  const std::lock_guard lock(mutex_);
  const MethodBody* const body = other->body.load(std::memory_order_relaxed);
  giveBody(*other, one->body.load(std::memory_order_relaxed));
  giveBody(*one, body);
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
