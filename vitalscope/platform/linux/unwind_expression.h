// What a frame's rules are worked out from, and the stack machine for rules that are expressions.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_bytes.h"
#include "vitalscope/platform/linux/unwind_machine.h"

namespace qbv::linux_backend {

enum class StepStatus : std::uint8_t {
  ok,
  outermost,      // there is no caller
  needsRegister,  // a rule needs a register that is not known
  unreadable,     // a rule needs memory that is neither in the copy nor readable elsewhere
  damaged,        // tables or stack make no sense
};

// Reads registers and stack for one frame's rules; remembers the first thing that went wrong.
class FrameInput {
 public:
  FrameInput(const Registers& registers, const StackView& stack) : registers_(registers), stack_(stack) {}

  StepStatus status() const { return status_; }
  // The register that status needsRegister means.
  unsigned missing() const { return missing_; }

  std::uint64_t registerValue(std::uint64_t number);
  std::uint64_t word(std::uint64_t address) { return sized(address, sizeof(std::uint64_t)); }
  // size bytes (1, 2, 4 or 8) at an address of the stack.
  std::uint64_t sized(std::uint64_t address, std::uint8_t size);
  void fail(StepStatus status) {
    if (status_ == StepStatus::ok) status_ = status;
  }

 private:
  const Registers& registers_;
  const StackView& stack_;
  StepStatus status_ = StepStatus::ok;
  unsigned missing_ = kRegisterCount;
};

// Runs an expression on a stack of 64 words, for at most 1,000 operations. initial, if given, is on the stack
// at the start. A failure is noted in input, and the value is then meaningless. Any thread; no lock, no heap.
std::uint64_t evaluate(Extent expression, FrameInput& input, const std::uint64_t* initial);

}  // namespace qbv::linux_backend
