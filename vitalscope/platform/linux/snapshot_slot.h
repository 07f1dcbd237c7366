// The slots through which a signalled thread hands over its registers and stack.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/return_marks.h"
#include "vitalscope/platform/linux/stack_view.h"

namespace qbv::linux_backend {

// At most this much of a stack is copied; a hundred frames seldom need more than a few pages.
inline constexpr std::size_t kMaximumStack = 512 * 1024;
inline constexpr std::size_t kSlotCount = 64;

// free → claimed (the requester prepares it) → pending (signalled) → busy (the handler copies) → done → free.
// pending → free when the requester gives up; busy → abandoned when the handler is stuck, and the handler
// frees the slot whenever it ends.
enum class SlotPhase : std::uint32_t { free, claimed, pending, busy, done, abandoned };

struct alignas(64) SnapshotSlot {
  std::atomic<std::uint32_t> word{0};  // thread id × 8 + phase; the futex that the requester waits on
  std::byte* buffer = nullptr;         // kMaximumStack bytes, mapped when the slot is first claimed
  Registers registers;
  std::uint64_t stackBase = 0;
  std::size_t stackSize = 0;
  bool alternateStack = false;
  ReturnMark returns;
};

constexpr std::uint32_t slotWord(std::uint32_t thread, SlotPhase phase) {
  return (thread << 3) | static_cast<std::uint32_t>(phase);
}
constexpr SlotPhase slotPhase(std::uint32_t word) {
  return static_cast<SlotPhase>(word & 7);
}

// The array of slots; it reads as free slots without buffers in a forked child. Null when there is no memory
// for it; presentSlots is null too before the first use and never makes it. Any thread, async-signal-safe.
SnapshotSlot* snapshotSlots();
SnapshotSlot* presentSlots();

}  // namespace qbv::linux_backend
