// For code that is called where registers hold what others have left in them.
#pragma once

#include "vitalscope/platform/export.h"

extern "C" {

// function(first, second), and what it answers. Every floating-point, vector, mask and x87 register comes out
// as it went in, at whatever width this processor has; general registers as after any call. Takes about
// 100 ns and up to 3 KB of stack. Any thread.
QBV_EXPORT void* qbv_call_keeping_registers(void* (*function)(void*, void*), void* first, void* second);
}
