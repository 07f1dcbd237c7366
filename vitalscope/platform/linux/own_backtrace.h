// The calling thread's own stack.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"

namespace qbv::linux_backend {

// The registers of the place where it stands, as far as frames' rules go by them: those that a function keeps
// for its caller.
#if defined(__x86_64__)
[[gnu::always_inline]] inline void readOwnRegisters(Registers& registers) {
  std::uint64_t pc, sp, rbp, rbx, r12, r13, r14, r15;
  asm volatile(
      "leaq 0f(%%rip), %0\n0:\n\tmovq %%rsp, %1\n\tmovq %%rbp, %2\n\tmovq %%rbx, %3\n\t"
      "movq %%r12, %4\n\tmovq %%r13, %5\n\tmovq %%r14, %6\n\tmovq %%r15, %7"
      : "=&r"(pc), "=m"(sp), "=m"(rbp), "=m"(rbx), "=m"(r12), "=m"(r13), "=m"(r14), "=m"(r15));
  const std::uint64_t kept[] = {r12, r13, r14, r15};
  for (unsigned i = 0; i < 4; ++i) registers.set(12 + i, kept[i]);
  registers.set(3, rbx);
  registers.set(kFramePointer, rbp);
  registers.set(kStackPointer, sp);
  registers.set(kProgramCounter, pc);
}
#elif defined(__aarch64__)
[[gnu::always_inline]] inline void readOwnRegisters(Registers& registers) {
  std::uint64_t pc, sp, kept[12];
  asm volatile(
      "adr %0, 0f\n0:\n\tmov %1, sp\n\t"
      "stp x19, x20, [%2]\n\tstp x21, x22, [%2, 16]\n\tstp x23, x24, [%2, 32]\n\t"
      "stp x25, x26, [%2, 48]\n\tstp x27, x28, [%2, 64]\n\tstp x29, x30, [%2, 80]"
      : "=&r"(pc), "=&r"(sp)
      : "r"(kept)
      : "memory");
  for (unsigned i = 0; i < 12; ++i) registers.set(19 + i, kept[i]);
  registers.set(kStackPointer, sp);
  registers.set(kProgramCounter, pc);
}
#endif

// Return addresses from the frame that `registers` were read in outwards, innermost first, at most max of
// them. That frame is the caller's and still there. Not in signal handlers; takes nothing from the heap,
// except in the process's first call.
int ownBacktrace(const Registers& registers, void** buffer, std::size_t max);

}  // namespace qbv::linux_backend
