// Call stacks of the process's threads, taken from inside and written like a crash report's thread section.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/task.h"
#include "vitalscope/probes/QBVSymbolication.h"

#if defined(__clang__)
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

// A thread's block is a heading line, one line per frame (at most 100, innermost first) and an empty line.
// What cannot be captured stands as a sentence in place of the block, without a line break:
// "Fail to get information about thread: 4711" when the thread has no readable registers, "Fail to get frame
// pointer" when it has no readable stack. Captures may run on several threads at once.
class QBV_EXPORT QBVitalscopeBacktrace {
 public:
  QBVitalscopeBacktrace() = delete;

  // Notes the main thread. Once, before the first capture.
  static void load();

  // The main thread's block; its heading also shows that thread's CPU use and the process's footprint. Any
  // thread but the main one.
  static std::string qbv_backtraceOfMainThread();
  // A line break, then the block of every thread but the calling one, in the kernel's order; or "Fail to get
  // information of all threads". Any thread.
  static std::string qbv_backtraceOfAllThread();
};

// A thread's registers behind the state of its last exception.
struct qbv_machine_context {
  std::uint8_t exception_state[16];
  qbv::ThreadState thread_state;
};

extern "C" {

// The block of one thread, which must not be the calling one. The thread is suspended only while its stack is
// read; in that span nothing is allocated and no lock is taken. Symbols are looked up afterwards.
QBV_EXPORT std::string _qbv_backtraceOfThread(qbv::ThreadPort thread);
// One frame's line with its line break: index, image name, address, and the symbol or (without one) the
// image's load address, with the offset from it. `address` is shown as it is. Any thread.
QBV_EXPORT std::string qbv_logBacktraceEntry(int index, std::uint64_t address,
                                             const qbv_symbol_record& record);

// The calling thread's port number. Any thread.
QBV_EXPORT qbv::ThreadPort qbthread_self();
// Fills the context's thread state with the registers of another thread, which keeps running; leaves its
// exception state alone. False when they cannot be read. Any thread but that one.
QBV_EXPORT bool qbv_fillThreadStateIntoMachineContext(qbv::ThreadPort thread, qbv_machine_context* context);
// Program counter, link register (0 on a machine that has none) and frame pointer, unmasked.
QBV_EXPORT std::uint64_t qbv_mach_instructionAddress(const qbv_machine_context* context);
QBV_EXPORT std::uint64_t qbv_mach_linkRegister(const qbv_machine_context* context);
QBV_EXPORT std::uint64_t qbv_mach_framePointer(const qbv_machine_context* context);
// Copies `size` bytes of the own process; memory that is not mapped gives an error, never a fault. Any
// thread.
QBV_EXPORT qbv::KernReturn qbv_mach_copyMem(const void* source, void* destination, std::size_t size);
// What follows the last "/" of a path, within that path; the whole path if it has none; null for null.
QBV_EXPORT const char* qbv_lastPathEntry(const char* path);
// strcmp, but 1 when either is null.
QBV_EXPORT int safe_strcmp(const char* left, const char* right);

}  // extern "C"

#if defined(__clang__)
#pragma clang diagnostic pop
#endif
