// The side of those who capture stacks: see moved_returns.h.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv::linux_backend {

struct ReturnMark;

enum class MovedWord { found, gone, elsewhere };  // gone: the entry is another call's by now

struct MovedEntry {
  std::uint64_t address = 0;
  unsigned inRegister = 0;  // which holds it
};

// What unwinders ask. The thread may go on meanwhile: nothing faults, and nothing later is taken for what the
// mark means.
struct MovedReturnReader {
  // The word at an address, if that is in an entry.
  MovedWord (*word)(const ReturnMark& mark, std::uint64_t address, std::uint64_t& word) noexcept;
  // The entry of a call that returns to `returnAddress` with this stack pointer; false when there is none.
  bool (*entry)(const ReturnMark& mark, std::uint64_t returnAddress, std::uint64_t stackPointer,
                MovedEntry& entry) noexcept;
};

// Which of a thread's moved returns there were at one instant. Later ones have higher numbers.
struct ReturnMark {
  const MovedReturnReader* reader = nullptr;  // null: it has none
  std::uint64_t returns = 0;                  // address of the thread's MovedReturns, never unmapped
  std::uint64_t entriesMade = 0;
};

// Of the calling thread. Async-signal-safe, nothing instrumented.
ReturnMark ownReturnMark() noexcept;
// Of another one, which stands still. Any thread, no lock.
ReturnMark returnMarkOf(std::uint32_t thread) noexcept;

}  // namespace qbv::linux_backend
