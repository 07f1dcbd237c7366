// What an unwinder works on: the registers of a thread and a copy of its used stack, both of one instant.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "vitalscope/platform/linux/return_marks.h"

namespace qbv::linux_backend {

// Numbers of the registers in call-frame information.
#if defined(__x86_64__)
// 0 rax, 1 rdx, 2 rcx, 3 rbx, 4 rsi, 5 rdi, 6 rbp, 7 rsp, 8..15 r8..r15, 16 the program counter.
inline constexpr unsigned kRegisterCount = 17;
inline constexpr unsigned kProgramCounter = 16;
inline constexpr unsigned kStackPointer = 7;
inline constexpr unsigned kFramePointer = 6;
#elif defined(__aarch64__)
// 0..30 x0..x30, 31 sp, 32 the program counter.
inline constexpr unsigned kRegisterCount = 33;
inline constexpr unsigned kProgramCounter = 32;
inline constexpr unsigned kStackPointer = 31;
inline constexpr unsigned kFramePointer = 29;
inline constexpr unsigned kLinkRegister = 30;
#else
#error "no register numbers for this machine"
#endif

// A snapshot that was taken without a signal knows the program counter and the stack pointer only.
struct Registers {
  std::array<std::uint64_t, kRegisterCount> value{};
  std::uint64_t valid = 0;  // bit n: value[n] is known

  bool has(unsigned number) const { return number < kRegisterCount && ((valid >> number) & 1) != 0; }
  void set(unsigned number, std::uint64_t word) {
    value[number] = word;
    valid |= std::uint64_t{1} << number;
  }
  void forget(unsigned number) { valid &= ~(std::uint64_t{1} << number); }

  std::uint64_t pc() const { return value[kProgramCounter]; }
  std::uint64_t sp() const { return value[kStackPointer]; }
  std::uint64_t fp() const { return value[kFramePointer]; }
};

// A copy of the stack from the stack pointer up. Owned by the snapshot; valid while the unwinder runs.
struct StackView {
  const std::byte* bytes = nullptr;
  std::uint64_t base = 0;  // the address that bytes[0] had
  std::size_t size = 0;
  // Reads a word that is not in the copy (the thread runs on an alternate stack, and its caller's frames are
  // on another); null when nothing but the copy may be used. Never faults: false for unmapped addresses.
  bool (*elsewhere)(std::uint64_t address, std::uint64_t& word) = nullptr;
  // The return addresses that the thread keeps elsewhere, as they were when the copy was taken.
  ReturnMark returns = {};

  // Whether the copy has all of the bytes right below an address.
  bool holdsBelow(std::uint64_t address, std::uint64_t count) const {
    return address - base >= count && address - base <= size;
  }

  // The word at an address of the thread's stack. Outside of the copy false, unless it is part of a
  // moved return address's entry or elsewhere has it.
  bool read(std::uint64_t address, std::uint64_t& word) const {
    if (size >= sizeof word && address >= base && address - base <= size - sizeof word) {
      std::memcpy(&word, bytes + (address - base), sizeof word);
      return true;
    }
    if (returns.reader != nullptr) {
      const MovedWord moved = returns.reader->word(returns, address, word);
      if (moved != MovedWord::elsewhere) return moved == MovedWord::found;
    }
    return elsewhere != nullptr && elsewhere(address, word);
  }
};

// An unwinder's answer when a frame's rule needs a register that the snapshot does not know: take a snapshot
// with all registers and ask again.
inline constexpr std::size_t kNeedsRegisters = static_cast<std::size_t>(-1);

// Writes the return addresses of the frames, innermost first, the program counter not among them, at most max
// of them; answers how many, or kNeedsRegisters. Runs on the requesting thread, never in a signal handler and
// never while the thread is stopped. Registers may hold garbage and the stack may be smashed: it ends, and
// reads nothing but the view and the loaded images' own tables.
using Unwinder = std::size_t (*)(const Registers& registers, const StackView& stack,
                                 std::uint64_t* returnAddresses, std::size_t max);

}  // namespace qbv::linux_backend
