// One frame up: from a frame's registers and its rules to its caller's registers.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_cache.h"
#include "vitalscope/platform/linux/unwind_expression.h"
#include "vitalscope/platform/linux/unwind_program.h"

namespace qbv::linux_backend {

// Decides whether the walk may go on to a frame address. Frames lie at growing addresses; where the walk goes
// to another stack (a signal struck on the one below an alternate stack, a function that runs another one on
// a stack of its own) it may go down, at most 8 times.
class FrameOrder {
 public:
  FrameOrder(std::uint64_t stackPointer, const StackView& stack)
      : last_(stackPointer == 0 ? 0 : stackPointer - 1), stack_(stack) {}

  bool admits(std::uint64_t frame, bool signalFrame);

 private:
  static constexpr int kMostSwitches = 8;
  bool inCopy(std::uint64_t address) const {
    return address >= stack_.base && address - stack_.base <= stack_.size;
  }

  std::uint64_t last_;
  int switches_ = 0;
  const StackView& stack_;
};

// A walk's state between two frames.
struct WalkState {
  Registers registers;
  std::uint64_t neverKnown;  // registers that the snapshot did not know and no frame has given since
  FrameOrder order;
  unsigned missing = kRegisterCount;  // what needsRegister was about
  bool exact = true;  // the program counter is where the frame stands, not the address after a call

  WalkState(const Registers& start, const StackView& stack);
  void give(unsigned number, std::uint64_t value);  // the caller's value is known
  void take(unsigned number);                       // it is lost, whatever the snapshot knew
  // What to answer when a register that is not known was needed: needsRegister only if the snapshot's taker
  // could have known it.
  StepStatus missed(unsigned number);
};

// Replaces the registers by the caller's. On a status other than ok they are as before, or meaningless.
StepStatus stepCompact(const CompactRow& row, const StackView& stack, WalkState& state);
StepStatus stepFull(const Row& row, const FrameEntry& entry, const StackView& stack, WalkState& state);

}  // namespace qbv::linux_backend
