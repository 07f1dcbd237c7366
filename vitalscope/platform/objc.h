// The types of the run-time method table and its message send: the little that code on hot paths needs.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

struct objc_class;
struct objc_selector;
struct objc_method;
// Every object begins with the class that answers its messages. For a class that is its metaclass, so classes
// are objects too.
struct objc_object {
  objc_class* isa;
};
using id = objc_object*;           // an instance or a class; null is nil
using Class = objc_class*;         // usable as id by Runtime::classObject()
using SEL = const objc_selector*;  // interned: equal names are equal pointers
using Method = objc_method*;       // one class's method of one selector
using IMP = void (*)();            // really R (*)(id self, SEL _cmd, arguments…)

// The one selector of that name (null: of the empty one), made when it is new. Any thread, at any time of the
// process's life. Never null, never freed.
QBV_EXPORT SEL selectorNamed(const char* name);

}  // namespace qbv

// Calls go through the caller's import slot in memory, each time anew, without a jump by way of a table of
// stubs.
#if defined(__GNUC__) && !defined(__clang__)
#define QBV_SEND_ENTRY QBV_EXPORT __attribute__((noplt))
#else
#define QBV_SEND_ENTRY QBV_EXPORT
#endif

extern "C" {

// Runs the method that the receiver's class has for the selector, with the arguments as they came, and lets
// it return to the caller. To call it, cast it to the method's own type, R (*)(id, SEL, arguments…), which
// has to be right: nothing is checked. qbv::send in message.h does that. (It is declared with variable
// arguments because compilers drop what they find a function not to take.)
//
// nil answers 0: the integer result registers and the first 16 bytes of the floating-point and vector ones
// are 0, and so are structures returned in them. Undefined for nil: results of type long double on x86-64 and
// vectors of more than 16 bytes. An object that has no such method ends the process, with a message that
// names it.
//
// Any thread. A method that was added, replaced or exchanged before the send began is seen by it. Keeps every
// argument register, takes no lock that it would have to wait for, and is a tail call: it adds no frame. Not
// in signal handlers: the first send of a selector to a class may allocate memory.
QBV_SEND_ENTRY qbv::id objc_msgSend(qbv::id receiver, qbv::SEL selector, ...);

#if defined(__x86_64__)
// The same for results that are returned in memory (structures of more than 16 bytes, or that are no plain
// bytes): their address comes first, then the receiver. To nil it leaves that memory alone and returns its
// address. Where it does not exist, objc_msgSend serves these too.
QBV_SEND_ENTRY void objc_msgSend_stret(void* result, qbv::id receiver, qbv::SEL selector, ...);
#endif

}  // extern "C"
