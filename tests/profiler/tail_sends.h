// Compiled with tail calls, at whatever level the tests are.
#pragma once

#include "vitalscope/platform/objc.h"

// A method that ends with a hooked send of itself, `levels` times, and then answers 1000.
int sendOnInPlaceOfReturning(qbv::id self, qbv::SEL selector, int levels);

// Sends from a frame of a few hundred bytes.
int depthBelow(qbv::IMP entry, qbv::id receiver, qbv::SEL selector);
