#include "vitalscope/platform/linux/signal_action.h"

#include <sys/syscall.h>
#include <unistd.h>

#if defined(__x86_64__)
// The kernel returns to this from a handler. Debuggers and unwinders know a signal frame by these very bytes.
extern "C" void qbv_return_from_signal();
__asm__(
    ".pushsection .text\n"
    ".p2align 4\n"
    "nop\n"
    ".globl qbv_return_from_signal\n"
    ".hidden qbv_return_from_signal\n"
    ".type qbv_return_from_signal, @function\n"
    "qbv_return_from_signal:\n"
    "movq $15, %rax\n"
    "syscall\n"
    ".size qbv_return_from_signal, . - qbv_return_from_signal\n"
    ".popsection\n");
#endif

namespace qbv::linux_backend {

namespace {
constexpr std::size_t kMaskSize = sizeof(std::uint64_t);
#if defined(__x86_64__)
constexpr std::uint64_t kHasRestorer = 0x04000000;
#endif
}  // namespace

bool readSignalAction(int signal, SignalAction& action) {
  return syscall(SYS_rt_sigaction, signal, nullptr, &action, kMaskSize) == 0;
}

bool writeSignalAction(int signal, SignalAction action) {
#if defined(__x86_64__)
  action.flags |= kHasRestorer;
  action.restorer = qbv_return_from_signal;
#endif
  return syscall(SYS_rt_sigaction, signal, &action, nullptr, kMaskSize) == 0;
}

}  // namespace qbv::linux_backend
