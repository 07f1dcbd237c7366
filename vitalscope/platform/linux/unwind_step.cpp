#include "vitalscope/platform/linux/unwind_step.h"

#include <cstring>
#include <utility>

namespace qbv::linux_backend {

namespace {

StepStatus returnTo(std::uint64_t address, bool signalFrame, WalkState& state) {
  const std::uint64_t pc = address & kCodeAddressMask;
  if (pc == 0) return StepStatus::outermost;
  if (kReturnColumn != kProgramCounter) state.give(kReturnColumn, address);
  state.registers.set(kProgramCounter, pc);
  state.exact = signalFrame;
  return StepStatus::ok;
}

constexpr std::uint64_t kWord = 8;

// A frame seldom saves more than its return address and six registers, right below its address.
constexpr std::uint64_t kNearbyWords = 15;

bool savesNearby(const CompactRow& row) {
  std::uint64_t words = 0;
  static_assert(sizeof row.saved <= sizeof words);
  std::memcpy(&words, row.saved.data(), row.saved.size());
  return (words & 0xf0f0f0f0f0f0f0f0U) == 0;
}

// Words by how far below the frame address they are; this one may read any up to kNearbyWords.
struct WordsOfCopy {
  const std::byte* frame;
  bool operator()(std::uint8_t below, std::uint64_t& word) const {
    std::memcpy(&word, frame - kWord * below, sizeof word);
    return true;
  }
};
struct WordsOfView {
  const StackView& stack;
  std::uint64_t frame;
  bool operator()(std::uint8_t below, std::uint64_t& word) const {
    return stack.read(frame - kWord * below, word);
  }
};

template <class Words, std::size_t... others>
StepStatus restoreCompact(const CompactRow& row, std::uint64_t frame, const Words& words, WalkState& state,
                          std::index_sequence<others...>) {
  Registers& registers = state.registers;
  std::uint64_t returnAddress = 0;
  if (row.saved[0] != 0) {
    if (!words(row.saved[0], returnAddress)) return StepStatus::unreadable;
  } else if (!registers.has(kReturnColumn)) {
    return state.missed(kReturnColumn);
  } else {
    returnAddress = registers.value[kReturnColumn];
  }
  std::uint64_t known = std::uint64_t{1} << kStackPointer, lost = 0;
  const auto restore = [&](unsigned number, std::uint8_t below) {
    if (below == 0) return;
    (words(below, registers.value[number]) ? known : lost) |= std::uint64_t{1} << number;
  };
  (restore(kTrackedRegisters[others + 1], row.saved[others + 1]), ...);
  registers.value[kStackPointer] = frame;
  registers.valid = (registers.valid | known) & ~lost;
  state.neverKnown &= ~(known | lost);
  return returnTo(returnAddress, row.signalFrame, state);
}

std::uint64_t frameAddress(const Row& row, FrameInput& input) {
  if (row.frame.kind == RuleKind::computed) return evaluate(row.frame.expression(), input, nullptr);
  return input.registerValue(row.frameRegister) + static_cast<std::uint64_t>(row.frame.operand);
}

// The caller's value by a rule that does say something.
std::uint64_t ruleValue(const Rule& rule, std::uint64_t frame, FrameInput& input) {
  const auto operand = static_cast<std::uint64_t>(rule.operand);
  switch (rule.kind) {
    case RuleKind::saved:
      return input.word(frame + operand);
    case RuleKind::frameRelative:
      return frame + operand;
    case RuleKind::inRegister:
      return input.registerValue(operand);
    case RuleKind::savedAt:
      return input.word(evaluate(rule.expression(), input, &frame));
    default:
      return evaluate(rule.expression(), input, &frame);
  }
}

bool changes(const Rule& rule) {
  return rule.kind != RuleKind::unspecified && rule.kind != RuleKind::same;
}

StepStatus failed(const FrameInput& input, WalkState& state) {
  return input.status() == StepStatus::needsRegister ? state.missed(input.missing()) : input.status();
}

// Every register but the return address: one that cannot be worked out is lost, which matters only if a
// frame further out needs it; but one the snapshot could have known stays so marked.
void restoreRegisters(const Row& row, std::uint64_t frame, const Registers& before, const StackView& stack,
                      WalkState& state) {
  for (unsigned number = 0; number < kRegisterCount; ++number) {
    const Rule& rule = row.rules[number];
    if (number == kReturnColumn || !changes(rule)) continue;
    FrameInput input(before, stack);
    const std::uint64_t value = rule.kind == RuleKind::undefined ? 0 : ruleValue(rule, frame, input);
    if (rule.kind != RuleKind::undefined && input.status() == StepStatus::ok) {
      state.give(number, value);
    } else if (input.status() == StepStatus::needsRegister &&
               state.missed(input.missing()) == StepStatus::needsRegister) {
      state.registers.forget(number);
      state.neverKnown |= std::uint64_t{1} << number;
    } else {
      state.take(number);
    }
  }
}

}  // namespace

bool FrameOrder::admits(std::uint64_t frame, bool signalFrame) {
  const bool switches = frame <= last_;
  if (switches && !signalFrame && inCopy(frame) && inCopy(last_)) return false;
  if (switches && ++switches_ > kMostSwitches) return false;
  // A function that a signal struck may not have moved its stack pointer yet.
  last_ = signalFrame && frame != 0 ? frame - 1 : frame;
  return true;
}

WalkState::WalkState(const Registers& start, const StackView& stack)
    : registers(start), neverKnown(kAllRegisters & ~start.valid), order(start.sp(), stack) {}

void WalkState::give(unsigned number, std::uint64_t value) {
  registers.set(number, value);
  neverKnown &= ~(std::uint64_t{1} << number);
}

void WalkState::take(unsigned number) {
  registers.forget(number);
  neverKnown &= ~(std::uint64_t{1} << number);
}

StepStatus WalkState::missed(unsigned number) {
  missing = number;
  const bool couldBeKnown = number < kRegisterCount && (neverKnown >> number & 1U) != 0;
  return couldBeKnown ? StepStatus::needsRegister : StepStatus::damaged;
}

StepStatus stepCompact(const CompactRow& row, const StackView& stack, WalkState& state) {
  if (row.outermost) return StepStatus::outermost;
  Registers& registers = state.registers;
  if (!registers.has(row.frameRegister)) return state.missed(row.frameRegister);
  const std::uint64_t frame =
      registers.value[row.frameRegister] + static_cast<std::uint64_t>(std::int64_t{row.frameOffset});
  if (!state.order.admits(frame, row.signalFrame)) return StepStatus::damaged;
  if (kReturnColumn == kProgramCounter && row.saved[0] == 0) return StepStatus::damaged;
  constexpr auto kOthers = std::make_index_sequence<kTrackedRegisters.size() - 1>();
  if (savesNearby(row) && stack.holdsBelow(frame, kNearbyWords * kWord)) {
    const std::byte* const bytes = stack.bytes + (frame - stack.base);
    return restoreCompact(row, frame, WordsOfCopy{bytes}, state, kOthers);
  }
  return restoreCompact(row, frame, WordsOfView{stack, frame}, state, kOthers);
}

StepStatus stepFull(const Row& row, const FrameEntry& entry, const StackView& stack, WalkState& state) {
  if (entry.common.returnColumn >= kRegisterCount) return StepStatus::damaged;
  const auto column = static_cast<unsigned>(entry.common.returnColumn);
  const Rule& returnRule = row.rules[column];
  if (returnRule.kind == RuleKind::undefined) return StepStatus::outermost;
  if (column == kProgramCounter && !changes(returnRule)) return StepStatus::damaged;
  const Registers before = state.registers;
  FrameInput input(before, stack);
  const std::uint64_t frame = frameAddress(row, input);
  if (input.status() != StepStatus::ok) return failed(input, state);
  if (!state.order.admits(frame, entry.common.signalFrame)) return StepStatus::damaged;
  const std::uint64_t returnAddress =
      changes(returnRule) ? ruleValue(returnRule, frame, input) : input.registerValue(column);
  if (input.status() != StepStatus::ok) return failed(input, state);
  state.give(kStackPointer, frame);
  restoreRegisters(row, frame, before, stack, state);
  return returnTo(returnAddress, entry.common.signalFrame, state);
}

}  // namespace qbv::linux_backend
