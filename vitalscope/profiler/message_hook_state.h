// What the steps of the message-send hook, its trampoline and its control share.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/hot_path.h"
#include "vitalscope/profiler/QBMessageSendHook.h"

namespace qbv::message_hook {

inline constexpr std::int32_t kFirstCapacity = 64, kCapacityStep = 64;
inline constexpr std::int32_t kMostEntries = 1 << 18;  // 16 MB; deeper sends are not noted
inline constexpr std::int32_t kRecordStep = 1024;
inline constexpr std::uint64_t kWindow = 100'000'000;  // microseconds after which the time begins anew

inline constexpr std::uint64_t kUntimed = ~std::uint64_t{0};
// Positions of entries that no stack pointer has to do with: noted by a direct call of the step, and over,
// though others above it are not.
inline constexpr std::uintptr_t kNoPosition = ~std::uintptr_t{0}, kOver = 0;

struct Settings {
  std::atomic<std::uint64_t> minimumTime{1000};  // microseconds
  std::atomic<std::int32_t> maximumDepth{10};
  std::atomic<bool> stopped{false};
  std::atomic<TimeOfDayFunction*> clock{nullptr};  // set when the first stack is made, unless a test did
};
[[gnu::visibility("hidden")]] extern constinit Settings settings;

}  // namespace qbv::message_hook

extern "C" {

// One per thread, at the beginning of the range of addresses in which its entries grow. Before the first
// entry stands a guard with kNoPosition.
struct dtp_thread_call_stack {
  std::atomic<dtp_stack_entry*> top;  // the innermost send; the guard when there is none
  dtp_stack_entry* end;               // of the entries that there is room for: entries + capacity
  std::uint64_t sends;                // ever noted
  bool isMainThread;
  dtp_stack_entry* entries;  // never moves
  std::int32_t capacity;     // counted; there is room for kCapacityStep more
  qbv::AddressSpan machineStack;

  // Depth of the innermost send; -1 when there is none.
  std::int32_t index() const {
    return static_cast<std::int32_t>(top.load(std::memory_order_relaxed) - entries);
  }
};

// What threads have before their first send: no entries and no room.
[[gnu::visibility("hidden")]] extern constinit dtp_thread_call_stack dtp_no_stack;
// The calling thread's. Never null.
extern constinit thread_local dtp_thread_call_stack* dtp_own_stack
    [[gnu::tls_model("initial-exec"), gnu::visibility("hidden")]];

// For qbv_call_keeping_registers. The thread's stack with room for one more, null without memory.
[[gnu::visibility("hidden")]] void* dtp_make_room(void*, void*);
// Adds a record of the entry, the innermost, with a cost in microseconds. Main thread.
[[gnu::visibility("hidden")]] void* dtp_append_record(void* entry, void* cost);

// Where the real send returns to: stands on the machine stack in place of the caller's address.
[[gnu::visibility("hidden")]] extern void* const dtp_return_point;

// For the trampoline.
// Notes a send; null without memory. Drops entries whose sends are no longer in flight: a longjmp has left
// them behind below this position.
[[gnu::visibility("hidden")]] dtp_stack_entry* dtp_begin_send(qbv::id receiver, qbv::SEL selector,
                                                              void* returnAddress, std::uintptr_t position);
// The innermost send of the thread's own stack is over. Answers its return address.
[[gnu::visibility("hidden")]] void* dtp_end_send(dtp_thread_call_stack* stack, dtp_stack_entry* top);
// The entry's send returns although it is not the innermost: because of a longjmp, or since several stacks
// take turns on this thread. Makes it the innermost and answers its stack, or takes note that it is over and
// answers null.
[[gnu::visibility("hidden")]] dtp_thread_call_stack* dtp_return_below(dtp_stack_entry* entry);
}
