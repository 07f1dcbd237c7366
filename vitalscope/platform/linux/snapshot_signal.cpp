#include "vitalscope/platform/linux/snapshot_signal.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <new>

#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/signal_action.h"

extern "C" void* __libc_stack_end;  // where the main thread's stack began

// The handler interrupts any code at any instruction, code of a sanitizer's own run-time library among it,
// and looks at stacks that are not its own: nothing in it may be instrumented, so it uses the compiler's
// atomic operations instead of the library's.
#define QBV_IN_HANDLER __attribute__((no_sanitize("address", "thread", "undefined")))

namespace qbv::linux_backend {

namespace {

constexpr int kHighestSignal = 64;
constexpr std::size_t kUnknownStack = 64 * 1024;  // taken of a stack whose end is not known
constexpr std::uint64_t kPlausibleStack = std::uint64_t{1} << 30;

std::atomic<SnapshotSlot*> slots{nullptr};
std::atomic<int> chosenSignal{0};
SignalAction earlierAction[kHighestSignal + 1];

QBV_IN_HANDLER std::uint32_t* wordOf(SnapshotSlot& slot) {
  return reinterpret_cast<std::uint32_t*>(&slot.word);
}

QBV_IN_HANDLER bool exchangeWord(SnapshotSlot& slot, std::uint32_t from, std::uint32_t to) {
  return __atomic_compare_exchange_n(wordOf(slot), &from, to, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

#if defined(__x86_64__)
QBV_IN_HANDLER void copyRegisters(const ucontext_t& context, Registers& registers) {
  constexpr int kOrder[kRegisterCount] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                          REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                          REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
  std::uint64_t* const to = reinterpret_cast<std::uint64_t*>(&registers.value);
  for (unsigned i = 0; i < kRegisterCount; ++i) {
    to[i] = static_cast<std::uint64_t>(context.uc_mcontext.gregs[kOrder[i]]);
  }
  registers.valid = (std::uint64_t{1} << kRegisterCount) - 1;
}
QBV_IN_HANDLER std::uint64_t stackPointer(const ucontext_t& context) {
  return static_cast<std::uint64_t>(context.uc_mcontext.gregs[REG_RSP]);
}
#elif defined(__aarch64__)
QBV_IN_HANDLER void copyRegisters(const ucontext_t& context, Registers& registers) {
  std::uint64_t* const to = reinterpret_cast<std::uint64_t*>(&registers.value);
  for (unsigned i = 0; i < kStackPointer; ++i) to[i] = context.uc_mcontext.regs[i];
  to[kStackPointer] = context.uc_mcontext.sp;
  to[kProgramCounter] = context.uc_mcontext.pc;
  registers.valid = (std::uint64_t{1} << kRegisterCount) - 1;
}
QBV_IN_HANDLER std::uint64_t stackPointer(const ucontext_t& context) {
  return context.uc_mcontext.sp;
}
#endif

QBV_IN_HANDLER bool onAlternateStack(const ucontext_t& context) {
  const auto low = reinterpret_cast<std::uint64_t>(context.uc_stack.ss_sp);
  return low != 0 && stackPointer(context) - low < context.uc_stack.ss_size;
}

// How much of the stack lies above the stack pointer, found without a lock: a thread's control block stands
// at the end of its stack. 0 for stacks of another make, say a coroutine's.
QBV_IN_HANDLER std::uint64_t usedStack(const ucontext_t& context) {
  const std::uint64_t pointer = stackPointer(context);
  if (onAlternateStack(context)) {
    return reinterpret_cast<std::uint64_t>(context.uc_stack.ss_sp) + context.uc_stack.ss_size - pointer;
  }
  const std::uint64_t toControlBlock = reinterpret_cast<std::uint64_t>(__builtin_thread_pointer()) - pointer;
  if (toControlBlock < kPlausibleStack) return toControlBlock;
  const std::uint64_t toMainEnd = reinterpret_cast<std::uint64_t>(__libc_stack_end) - pointer;
  return toMainEnd < kPlausibleStack ? toMainEnd : 0;
}

// The kernel copies, so that an end of stack that was guessed wrong is a short copy and not a fault. Where
// that call is refused the bytes go through a pipe, which takes longer and is as safe.
QBV_IN_HANDLER std::size_t copyStack(const ucontext_t& context, int process, std::byte* buffer) {
  const std::uint64_t pointer = stackPointer(context);
  const std::uint64_t used = usedStack(context);
  const std::size_t wanted = used == 0 ? kUnknownStack : used < kMaximumStack ? used : kMaximumStack;
  const iovec to{buffer, wanted};
  const iovec from{reinterpret_cast<void*>(pointer), wanted};
  const long copied = syscall(SYS_process_vm_readv, process, &to, 1UL, &from, 1UL, 0UL);
  if (copied >= 0) return static_cast<std::size_t>(copied);
  return readThroughPipe(pointer, wanted, buffer);
}

QBV_IN_HANDLER void fill(SnapshotSlot& slot, const ucontext_t& context, int process) {
  const auto self = static_cast<std::uint32_t>(syscall(SYS_gettid));
  const std::uint32_t busy = slotWord(self, SlotPhase::busy);
  if (!exchangeWord(slot, slotWord(self, SlotPhase::pending), busy)) return;
  copyRegisters(context, slot.registers);
  slot.stackBase = stackPointer(context);
  slot.alternateStack = onAlternateStack(context);
  slot.returns = ownReturnMark();
  slot.stackSize = copyStack(context, process, slot.buffer);
  // From here on the slot is the requester's.
  if (!exchangeWord(slot, busy, slotWord(self, SlotPhase::done))) {
    __atomic_store_n(wordOf(slot), 0, __ATOMIC_RELEASE);
  }
  syscall(SYS_futex, wordOf(slot), FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

// The slot a signal is for; null for a signal that is not ours.
QBV_IN_HANDLER SnapshotSlot* slotOf(const siginfo_t& info) {
  auto* const first = __atomic_load_n(reinterpret_cast<SnapshotSlot**>(&slots), __ATOMIC_ACQUIRE);
  if (first == nullptr || info.si_code != SI_QUEUE ||
      info.si_pid != static_cast<pid_t>(syscall(SYS_getpid))) {
    return nullptr;
  }
  const std::uint64_t offset =
      reinterpret_cast<std::uint64_t>(info.si_value.sival_ptr) - reinterpret_cast<std::uint64_t>(first);
  if (offset >= kSlotCount * sizeof(SnapshotSlot) || offset % sizeof(SnapshotSlot) != 0) return nullptr;
  return first + offset / sizeof(SnapshotSlot);
}

QBV_IN_HANDLER bool isFunction(const SignalAction& action) {
  const auto value = reinterpret_cast<std::uint64_t>(action.handler);
  return value != reinterpret_cast<std::uint64_t>(SIG_DFL) &&
         value != reinterpret_cast<std::uint64_t>(SIG_IGN);
}

QBV_IN_HANDLER void onSnapshotSignal(int signal, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  if (SnapshotSlot* const slot = slotOf(*info)) {
    fill(*slot, *static_cast<const ucontext_t*>(context), info->si_pid);
  } else if (isFunction(earlierAction[signal])) {
    earlierAction[signal].handler(signal, info, context);
  }
  errno = savedErrno;
}

bool install(int signal, const SignalAction& earlier) {
  earlierAction[signal] = earlier;
  SignalAction action;
  action.handler = onSnapshotSignal;
  action.flags =
      SA_SIGINFO | SA_RESTART | SA_ONSTACK | (isFunction(earlier) ? earlier.flags & SA_NODEFER : 0);
  action.mask = isFunction(earlier) ? earlier.mask : 0;
  return writeSignalAction(signal, action);
}

bool isOurs(int signal) {
  SignalAction action;
  return readSignalAction(signal, action) && action.handler == onSnapshotSignal;
}

// Two threads at once come to the same signal: the second finds the first one's handler.
int chooseSignal() {
  int shared = 0;
  for (int signal = SIGRTMAX; signal >= SIGRTMIN; --signal) {
    SignalAction action;
    if (!readSignalAction(signal, action)) continue;
    if (action.handler == onSnapshotSignal) return signal;
    const bool isFree = reinterpret_cast<std::uint64_t>(action.handler) == 0;
    if (isFree) return install(signal, action) ? signal : 0;
    if (shared == 0 && isFunction(action)) shared = signal;
  }
  SignalAction action;
  if (shared == 0 || !readSignalAction(shared, action)) return 0;
  return action.handler == onSnapshotSignal || install(shared, action) ? shared : 0;
}

}  // namespace

SnapshotSlot* presentSlots() {
  return slots.load(std::memory_order_acquire);
}

SnapshotSlot* snapshotSlots() {
  SnapshotSlot* current = presentSlots();
  if (current != nullptr) return current;
  void* const pages = mapWipedOnFork(kSlotCount * sizeof(SnapshotSlot));
  if (pages == nullptr) return nullptr;
  auto* const made = static_cast<SnapshotSlot*>(pages);
  for (std::size_t i = 0; i < kSlotCount; ++i) new (made + i) SnapshotSlot;
  if (slots.compare_exchange_strong(current, made)) return made;
  munmap(pages, kSlotCount * sizeof(SnapshotSlot));
  return current;
}

int snapshotSignal() {
  const int current = chosenSignal.load(std::memory_order_relaxed);
  if (current != 0 && isOurs(current)) return current;
  const int signal = chooseSignal();
  chosenSignal.store(signal, std::memory_order_relaxed);
  return signal;
}

bool sendSnapshotSignal(int signal, std::uint32_t thread, SnapshotSlot* slot) {
  siginfo_t info{};
  info.si_signo = signal;
  info.si_code = SI_QUEUE;
  info.si_pid = processId();
  info.si_uid = getuid();
  info.si_value.sival_ptr = slot;
  return syscall(SYS_rt_tgsigqueueinfo, processId(), thread, signal, &info) == 0;
}

}  // namespace qbv::linux_backend
