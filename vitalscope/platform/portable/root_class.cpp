// What every object can: be allocated and given back, and be asked for what it can.
#include <cstddef>
#include <cstdlib>
#include <new>

#include "vitalscope/platform/message.h"
#include "vitalscope/platform/portable/class_table.h"

namespace qbv {

namespace {

id alloc(id self, SEL) {
  void* const memory = std::calloc(1, sizeof(InstanceBox));
  if (memory == nullptr) return nullptr;
  return &(new (memory) InstanceBox{InstanceBox::Origin::heap, {reinterpret_cast<Class>(self)}})->object;
}

// Zones of objects are history: any zone gives the heap.
id allocWithZone(id self, SEL selector, void*) {
  return alloc(self, selector);
}

// Classes are objects too, but nobody's to give back.
void dealloc(id self, SEL) {
  if (self->isa->isMetaclass) return;
  auto* const box =
      reinterpret_cast<InstanceBox*>(reinterpret_cast<char*>(self) - offsetof(InstanceBox, object));
  if (box->origin == InstanceBox::Origin::heap) std::free(box);
}

bool responds(id self, SEL, SEL asked) {
  return findMethod(self->isa, asked) != nullptr;
}

id perform(id self, SEL, SEL selector) {
  return send<id>(self, selector);
}

}  // namespace

void ClassTable::defineRootMethods() {
  ClassDefinition(*this, "NSObject")
      .classMethod("alloc", alloc)
      .classMethod("allocWithZone:", allocWithZone)
      .method("dealloc", dealloc)
      .method("respondsToSelector:", responds)
      .method("performSelector:", perform);
}

}  // namespace qbv
