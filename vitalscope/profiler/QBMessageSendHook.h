// The message-send hook: times the messages that the main thread sends through the images' imports of
// objc_msgSend.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/objc.h"

extern "C" {

// One message send in flight on a thread. Stays where it is until the send is over: call-frame information
// finds the caller through it.
struct dtp_stack_entry {
  qbv::id receiver;
  qbv::Class cls;  // the receiver's, taken when the send started
  qbv::SEL selector;
  std::uint64_t startTime;  // microseconds, see dtp_call_record; all ones: the send is not timed
  void* returnAddress;      // where the trampoline must return to
  void* savedRegister;      // the caller's value of the register in which the trampoline keeps the entry
  std::uintptr_t position;  // names the send's frame: within the 16 bytes of the machine stack that begin
                            // with the return address, lower for sends that are tail calls of the one before
  std::uint64_t serialNumber;  // of all sends of the thread
};

// One finished, recorded call.
struct dtp_call_record {
  qbv::Class cls;  // a metaclass when a class method was called
  qbv::SEL selector;
  std::uint64_t timeCost;  // microseconds of wall-clock time, nested sends included; right below 100 seconds
  std::int32_t depth;      // 0: the outermost hooked send of the thread
};

// A run. Begin routes every import of objc_msgSend (and of objc_msgSend_stret) to the trampoline; end stops
// the timing and routes them back. When end has returned, no record is being written or added. Sends that are
// in the trampoline by then still return through it. One thread at a time, any thread, not in signal
// handlers.
QBV_EXPORT void dtp_hook_begin();
QBV_EXPORT void dtp_hook_end();

// A call is recorded if its cost is greater than the minimum (at first 1000 microseconds) and its depth less
// one is below the maximum (at first 10). From the next finished send on. Any thread.
QBV_EXPORT void dtp_set_min_time(std::uint64_t microseconds);
QBV_EXPORT void dtp_set_max_depth(std::int32_t depth);

// The records in order of completion, null when there are none, and their number unless `count` is null. They
// stay valid until dtp_clear_call_records, and until more are added: read them when no run is going. Any
// thread.
QBV_EXPORT const dtp_call_record* dtp_get_call_records(std::int32_t* count);
// Discards them; a run that is going loses what it finishes meanwhile. Any thread.
QBV_EXPORT void dtp_clear_call_records();

// The steps of a send. `before` notes it on the thread's stack; null when there is no memory for that: then
// the send has to go on without `after`. `after` takes the note of the innermost send back and answers its
// return address; null when there is none. They touch general registers only.
QBV_EXPORT dtp_stack_entry* before_objc_msgSend(qbv::id receiver, qbv::SEL selector, void* returnAddress);
QBV_EXPORT void* after_objc_msgSend();

// To be called like objc_msgSend, and with the same results. They expect the functions they stand for in
// these variables. A send has to return on the thread that it was begun on.
QBV_EXPORT qbv::id hook_objc_msgSend(qbv::id receiver, qbv::SEL selector, ...);
extern QBV_EXPORT void* orig_objc_msgSend;
#if defined(__x86_64__)
QBV_EXPORT void hook_objc_msgSend_stret(void* result, qbv::id receiver, qbv::SEL selector, ...);
extern QBV_EXPORT void* orig_objc_msgSend_stret;
#endif

}  // extern "C"
