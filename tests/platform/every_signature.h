// Methods that use every way of passing arguments and results, and sends of them through a function that
// stands for objc_msgSend. A send that loses or changes anything fails the running test.
#pragma once

#include "vitalscope/platform/objc.h"
#include "vitalscope/platform/runtime.h"

namespace qbv::tests {

// A class "EverySignature" with these methods.
Class defineEverySignature(Runtime& runtime);

// What is compared with objc_msgSend; stret is null where large results need no entry of their own.
struct SendEntries {
  IMP send;
  IMP stret;
};
#if defined(__x86_64__)
#define QBV_SEND_ENTRIES(send) \
  { reinterpret_cast<IMP>(send), reinterpret_cast<IMP>(send##_stret) }
#else
#define QBV_SEND_ENTRIES(send) \
  { reinterpret_cast<IMP>(send), nullptr }
#endif
void sendEverySignature(const SendEntries& entries, id receiver);

}  // namespace qbv::tests
