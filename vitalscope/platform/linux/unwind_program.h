// The interpreter of call-frame programs: from a function's frame entry to the rules that hold at one
// address.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_bytes.h"
#include "vitalscope/platform/linux/unwind_entry.h"

namespace qbv::linux_backend {

// How the caller's value of a register is found. "frame" is the frame address.
enum class RuleKind : std::uint8_t {
  unspecified,    // nothing was said: unchanged
  same,           // unchanged
  undefined,      // lost; for the return address: there is no caller
  saved,          // at frame + operand
  frameRelative,  // it is frame + operand
  inRegister,     // in register number operand
  savedAt,        // at the address the expression gives
  computed,       // it is what the expression gives
};

// The types below have no initialisers so that the interpreter's stack of rows costs nothing; start from {}.
struct Rule {
  std::int64_t operand;  // offset, register number, or where the expression's bytes begin
  std::uint32_t length;  // bytes of the expression
  RuleKind kind;

  Extent expression() const {
    const auto begin = static_cast<std::uint64_t>(operand);
    return {begin, begin + length};
  }
};

// The rules at one address. The frame address is a register plus an offset (saved by kind frameRelative: its
// operand is the offset and frameRegister the register) or an expression (kind computed).
struct Row {
  Rule frame;
  std::uint64_t frameRegister;
  std::array<Rule, kRegisterCount> rules;
};

// The rules that hold at pc, which lies in the entry's code. False when a program is damaged or uses an
// operation nobody knows, when states are remembered deeper than 16, or when it gives no frame address.
// Registers that the machine's walk does not need (vector registers) are passed over. Takes at most as many
// steps as the program has bytes. Any thread; no lock, no heap, about 6 KB of stack.
bool rulesAt(const FrameEntry& entry, std::uint64_t pc, Row& row);

}  // namespace qbv::linux_backend
