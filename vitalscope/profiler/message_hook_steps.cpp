// The two steps of every hooked send. The registers of the send's arguments and results are live here, so
// this file is compiled to touch general registers only, and reaches everything else by a function that keeps
// the others. Saving them for every send would cost more than all the rest: some 100 ns for the wider
// vectors.
//
// A signal handler may send messages at any point: it takes entries above the top and gives them back. So the
// top goes up before an entry is filled and comes down after it was read.
//
// What not every send needs stands in functions of its own that end the step, so that the others put no
// registers away.
#include "vitalscope/platform/keep_registers.h"
#include "vitalscope/platform/moved_returns.h"
#include "vitalscope/profiler/message_hook_state.h"

using namespace qbv::message_hook;

namespace {

// Places that message_send_hook_*.S knows.
static_assert(offsetof(dtp_stack_entry, returnAddress) == 32 &&
              offsetof(dtp_stack_entry, savedRegister) == 40 && offsetof(dtp_stack_entry, position) == 48);
static_assert(offsetof(dtp_thread_call_stack, top) == 0);
// And those who capture stacks.
static_assert(sizeof(dtp_stack_entry) == qbv::kMovedReturnEntryBytes &&
              offsetof(dtp_stack_entry, serialNumber) == 32 + offsetof(qbv::MovedReturn, entryNumber) &&
              offsetof(dtp_stack_entry, position) == 32 + offsetof(qbv::MovedReturn, position));

struct {
  dtp_stack_entry guard{};
  dtp_stack_entry none{};
} constinit noEntries;

inline dtp_stack_entry* topOf(const dtp_thread_call_stack& stack) {
  return stack.top.load(std::memory_order_relaxed);
}
inline void setTop(dtp_thread_call_stack& stack, dtp_stack_entry* top) {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack.top.store(top, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

inline std::uint64_t timeInWindow() {
  qbv::TimeOfDay now;
  settings.clock.load(std::memory_order_relaxed)(&now, nullptr);
  return static_cast<std::uint64_t>(now.seconds) % 100 * 1'000'000 +
         static_cast<std::uint64_t>(now.microseconds);
}

bool isPassed(const dtp_thread_call_stack& stack, const dtp_stack_entry& entry, std::uintptr_t position) {
  return entry.position == kOver ||
         (entry.position <= position && stack.machineStack.contains(entry.position) &&
          stack.machineStack.contains(position));
}

dtp_stack_entry* startClock(dtp_stack_entry* entry) {
  entry->startTime = settings.stopped.load(std::memory_order_relaxed) ? kUntimed : timeInWindow();
  return entry;
}

[[gnu::noinline]] dtp_stack_entry* startClockOfMainThread(dtp_stack_entry* entry) {
  return startClock(entry);
}

// The new entry lies on top of others that are no longer in flight.
[[gnu::noinline]] dtp_stack_entry* dropPassed(dtp_thread_call_stack& stack, dtp_stack_entry* entry) {
  dtp_stack_entry* lowest = entry;
  while (lowest > stack.entries && isPassed(stack, lowest[-1], entry->position)) --lowest;
  if (lowest != entry) {
    *lowest = *entry;
    setTop(stack, lowest);
  }
  return stack.isMainThread ? startClock(lowest) : lowest;
}

inline dtp_stack_entry* push(dtp_thread_call_stack& stack, qbv::id receiver, qbv::SEL selector,
                             void* returnAddress, std::uintptr_t position) {
  dtp_stack_entry* const entry = topOf(stack) + 1;
  setTop(stack, entry);
  // First, so that who captures this thread's stack meanwhile does not take the rest for the one before.
  entry->serialNumber = ++stack.sends;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  entry->receiver = receiver;
  entry->cls = receiver == nullptr ? nullptr : receiver->isa;
  entry->selector = selector;
  entry->returnAddress = returnAddress;
  entry->position = position;
  if (entry[-1].position <= position && position != kNoPosition) [[unlikely]]
    return dropPassed(stack, entry);
  return stack.isMainThread ? startClockOfMainThread(entry) : entry;
}

[[gnu::noinline]] dtp_stack_entry* pushWithNewRoom(qbv::id receiver, qbv::SEL selector, void* returnAddress,
                                                   std::uintptr_t position) {
  void* const stack = qbv_call_keeping_registers(dtp_make_room, nullptr, nullptr);
  if (stack == nullptr) return nullptr;
  return push(*static_cast<dtp_thread_call_stack*>(stack), receiver, selector, returnAddress, position);
}

inline void* pop(dtp_thread_call_stack& stack, dtp_stack_entry* top) {
  void* const returnAddress = top->returnAddress;
  do --top;
  while (top->position == kOver);
  setTop(stack, top);
  return returnAddress;
}

[[gnu::noinline]] void* popTimed(dtp_thread_call_stack& stack, dtp_stack_entry* top) {
  if (top->startTime == kUntimed || settings.stopped.load(std::memory_order_relaxed)) return pop(stack, top);
  std::uint64_t now = timeInWindow();
  if (now < top->startTime) now += kWindow;
  const std::uint64_t cost = now - top->startTime;
  if (cost > settings.minimumTime.load(std::memory_order_relaxed) &&
      stack.index() - 1 < settings.maximumDepth.load(std::memory_order_relaxed)) [[unlikely]]
    qbv_call_keeping_registers(dtp_append_record, top, reinterpret_cast<void*>(cost));
  return pop(stack, top);
}

}  // namespace

constinit dtp_thread_call_stack dtp_no_stack{
    &noEntries.guard, &noEntries.none, 0, false, &noEntries.none, 0, {}};
constinit thread_local dtp_thread_call_stack* dtp_own_stack
    [[gnu::tls_model("initial-exec"), gnu::visibility("hidden")]] = &dtp_no_stack;

dtp_stack_entry* dtp_begin_send(qbv::id receiver, qbv::SEL selector, void* returnAddress,
                                std::uintptr_t position) {
  dtp_thread_call_stack& stack = *dtp_own_stack;
  if (topOf(stack) + 1 == stack.end) [[unlikely]]
    return pushWithNewRoom(receiver, selector, returnAddress, position);
  return push(stack, receiver, selector, returnAddress, position);
}

void* dtp_end_send(dtp_thread_call_stack* stack, dtp_stack_entry* top) {
  return stack->isMainThread ? popTimed(*stack, top) : pop(*stack, top);
}

dtp_stack_entry* before_objc_msgSend(qbv::id receiver, qbv::SEL selector, void* returnAddress) {
  return dtp_begin_send(receiver, selector, returnAddress, kNoPosition);
}

void* after_objc_msgSend() {
  dtp_thread_call_stack& stack = *dtp_own_stack;
  return stack.index() < 0 ? nullptr : dtp_end_send(&stack, topOf(stack));
}

dtp_thread_call_stack* dtp_return_below(dtp_stack_entry* entry) {
  dtp_thread_call_stack& stack = *dtp_own_stack;
  dtp_stack_entry* top = topOf(stack);
  if (entry < stack.entries || entry > top) return nullptr;
  while (top > entry && isPassed(stack, *top, entry->position)) --top;
  setTop(stack, top);
  if (top == entry) return &stack;
  entry->position = kOver;
  return nullptr;
}
