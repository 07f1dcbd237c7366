#include "tests/profiler/tail_sends.h"

#include <cstring>

#include "vitalscope/profiler/QBMessageSendHook.h"

int sendOnInPlaceOfReturning(qbv::id self, qbv::SEL selector, int levels) {
  if (levels == 0) return 1000;
  return reinterpret_cast<int (*)(qbv::id, qbv::SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(
      self, selector, levels - 1);
}

int depthBelow(qbv::IMP entry, qbv::id receiver, qbv::SEL selector) {
  char room[400];
  std::memset(room, 1, sizeof room);
  const int depth = reinterpret_cast<int (*)(qbv::id, qbv::SEL)>(entry)(receiver, selector);
  asm volatile("" : : "r"(room) : "memory");
  return depth;
}
