// The two steps of every hooked send. The registers of the send's arguments and results are live here, so
// this file is compiled to touch general registers only, and reaches everything else by a function that keeps
// the others. Saving them for every send would cost more than all the rest: some 100 ns for the wider
// vectors.
//
// A signal handler may send messages at any point: it takes entries above the index and gives them back. So
// the index goes up before an entry is filled and comes down after it was read.
#include "vitalscope/platform/keep_registers.h"
#include "vitalscope/profiler/message_hook_state.h"

using namespace qbv::message_hook;

constinit thread_local dtp_thread_call_stack* dtp_own_stack
    [[gnu::tls_model("initial-exec"), gnu::visibility("hidden")]] = nullptr;

namespace {

// Places that message_send_hook_*.S knows.
static_assert(sizeof(dtp_stack_entry) == 64 && offsetof(dtp_stack_entry, returnAddress) == 32 &&
              offsetof(dtp_stack_entry, savedRegister) == 40 && offsetof(dtp_stack_entry, position) == 48);
static_assert(offsetof(dtp_thread_call_stack, entries) == 0 && offsetof(dtp_thread_call_stack, index) == 12);

inline std::int32_t indexOf(const dtp_thread_call_stack& stack) {
  return stack.index.load(std::memory_order_relaxed);
}
inline void setIndex(dtp_thread_call_stack& stack, std::int32_t index) {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  stack.index.store(index, std::memory_order_relaxed);
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

inline std::uint64_t timeInWindow() {
  qbv::TimeOfDay now;
  settings.clock.load(std::memory_order_relaxed)(&now, nullptr);
  return static_cast<std::uint64_t>(now.seconds) % 100 * 1'000'000 +
         static_cast<std::uint64_t>(now.microseconds);
}

inline bool isTimed(const dtp_thread_call_stack& stack) {
  return stack.isMainThread && !settings.stopped.load(std::memory_order_relaxed);
}

inline bool hasRoom(const dtp_thread_call_stack* stack) {
  return stack != nullptr && indexOf(*stack) + 1 < stack->capacity;
}

// What not every send needs stands in functions of its own that end the step, so that the others put no
// registers away.
[[gnu::noinline]] dtp_stack_entry* startClock(dtp_stack_entry* entry) {
  entry->startTime = timeInWindow();
  return entry;
}

inline dtp_stack_entry* push(dtp_thread_call_stack& stack, qbv::id receiver, qbv::SEL selector,
                             void* returnAddress) {
  const std::int32_t index = indexOf(stack) + 1;
  setIndex(stack, index);
  dtp_stack_entry& entry = stack.entries[index];
  entry.receiver = receiver;
  entry.cls = receiver == nullptr ? nullptr : receiver->isa;
  entry.selector = selector;
  entry.startTime = kUntimed;
  entry.returnAddress = returnAddress;
  entry.position = kNoPosition;
  entry.serialNumber = ++stack.sends;
  return isTimed(stack) ? startClock(&entry) : &entry;
}

[[gnu::noinline]] dtp_stack_entry* pushWithNewRoom(qbv::id receiver, qbv::SEL selector, void* returnAddress) {
  void* const stack = qbv_call_keeping_registers(dtp_make_room, nullptr, nullptr);
  if (stack == nullptr) return nullptr;
  return push(*static_cast<dtp_thread_call_stack*>(stack), receiver, selector, returnAddress);
}

inline void* pop(dtp_thread_call_stack& stack) {
  std::int32_t index = indexOf(stack);
  void* const returnAddress = stack.entries[index].returnAddress;
  do --index;
  while (stack.entries[index].position == kOver);
  setIndex(stack, index);
  return returnAddress;
}

[[gnu::noinline]] void* popTimed(dtp_thread_call_stack& stack) {
  const std::int32_t depth = indexOf(stack);
  dtp_stack_entry& entry = stack.entries[depth];
  std::uint64_t now = timeInWindow();
  if (now < entry.startTime) now += kWindow;
  const std::uint64_t cost = now - entry.startTime;
  if (cost > settings.minimumTime.load(std::memory_order_relaxed) &&
      depth - 1 < settings.maximumDepth.load(std::memory_order_relaxed)) [[unlikely]]
    qbv_call_keeping_registers(dtp_append_record, &entry, reinterpret_cast<void*>(cost));
  return pop(stack);
}

bool isPassed(const dtp_thread_call_stack& stack, const dtp_stack_entry& entry, std::uintptr_t position) {
  return entry.position == kOver ||
         (entry.position <= position && stack.machineStack.contains(entry.position) &&
          stack.machineStack.contains(position));
}

}  // namespace

dtp_stack_entry* before_objc_msgSend(qbv::id receiver, qbv::SEL selector, void* returnAddress) {
  dtp_thread_call_stack* const stack = dtp_own_stack;
  if (!hasRoom(stack)) [[unlikely]]
    return pushWithNewRoom(receiver, selector, returnAddress);
  return push(*stack, receiver, selector, returnAddress);
}

void* after_objc_msgSend() {
  dtp_thread_call_stack* const stack = dtp_own_stack;
  if (stack == nullptr || indexOf(*stack) < 0) return nullptr;
  const bool timed = isTimed(*stack) && stack->entries[indexOf(*stack)].startTime != kUntimed;
  return timed ? popTimed(*stack) : pop(*stack);
}

dtp_stack_entry* dtp_drop_passed(dtp_stack_entry* entry) {
  dtp_thread_call_stack& stack = *dtp_own_stack;
  std::int32_t index = indexOf(stack);
  while (index > 0 && isPassed(stack, stack.entries[index - 1], entry->position)) --index;
  if (index == indexOf(stack)) return entry;
  stack.entries[index] = *entry;
  setIndex(stack, index);
  return &stack.entries[index];
}

bool dtp_return_below(dtp_stack_entry* entry) {
  dtp_thread_call_stack* const stack = dtp_own_stack;
  const std::int32_t top = stack == nullptr ? -1 : indexOf(*stack);
  if (top < 0 || entry < stack->entries || entry > stack->entries + top) return false;
  const auto index = static_cast<std::int32_t>(entry - stack->entries);
  std::int32_t above = top;
  while (above > index && isPassed(*stack, stack->entries[above], entry->position)) --above;
  setIndex(*stack, above);
  if (above == index) return true;
  entry->position = kOver;
  return false;
}

extern "C" {
// Without the detour of an exported name.
[[gnu::visibility("hidden"), gnu::alias("before_objc_msgSend")]] dtp_stack_entry* dtp_before(qbv::id,
                                                                                             qbv::SEL, void*);
[[gnu::visibility("hidden"), gnu::alias("after_objc_msgSend")]] void* dtp_after();
}
