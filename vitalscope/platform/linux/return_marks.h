// The side of those who capture stacks: see moved_returns.h.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv::linux_backend {

// Which of a thread's moved returns there were at one instant. Later ones are not mistaken for them: their
// numbers are higher.
struct ReturnMark {
  std::uint64_t returns = 0;  // address of the thread's MovedReturns, never unmapped; 0: it has none
  std::uint64_t entriesMade = 0;
};

// Of the calling thread. Async-signal-safe, nothing instrumented.
ReturnMark ownReturnMark() noexcept;
// Of another one, which stands still. Any thread, no lock.
ReturnMark returnMarkOf(std::uint32_t thread) noexcept;

// What the following two read may change or go away meanwhile.
enum class MovedWord { found, gone, elsewhere };  // gone: the entry is another call's by now
// The word at an address, if that is in an entry.
MovedWord readMovedWord(const ReturnMark& mark, std::uint64_t address, std::uint64_t& word) noexcept;
// The address of the entry of a call that returns to `returnAddress` with this stack pointer, and the
// register that holds it; false when there is none.
struct MovedEntry {
  std::uint64_t address = 0;
  unsigned inRegister = 0;
};
bool findMovedEntry(const ReturnMark& mark, std::uint64_t returnAddress, std::uint64_t stackPointer,
                    MovedEntry& entry) noexcept;

}  // namespace qbv::linux_backend
