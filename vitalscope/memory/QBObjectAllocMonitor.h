// Counts live objects: what the root class's allocation and destruction are exchanged for at load.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/runtime.h"

// Methods that the root class "NSObject" is given. What is counted are calls that reach the root class's own
// methods: an allocation that passes through both of them counts twice, a class that replaces them and does
// not go on to the root's is not counted. Each runs on whatever thread allocates or destroys, and adds one
// counter update. Not before load.
class QBV_EXPORT NSObject_AllocMonitor {
 public:
  NSObject_AllocMonitor() = delete;

  // Exchanges alloc, allocWithZone: and dealloc of the root class for the three below. Once; later calls do
  // nothing.
  static void load();
  static qbv::id qb_alloc(qbv::id self, qbv::SEL selector);
  static qbv::id qb_allocWithZone(qbv::id self, qbv::SEL selector, void* zone);
  static void qb_dealloc(qbv::id self, qbv::SEL selector);
  // Never below 0. Any thread. The root class answers the message of the same name with it.
  static std::int64_t currentOcObjectLiveCount();
};

extern "C" {

// Exchanges what two methods of the root class do: class methods or instance methods. Does nothing when
// either is missing. Any thread.
QBV_EXPORT void exchangeMethod(qbv::SEL replaced, qbv::SEL replacement, bool classMethod);
}
