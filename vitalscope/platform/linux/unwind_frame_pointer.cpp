#include "vitalscope/platform/linux/unwind_frame_pointer.h"

#include <algorithm>

#include "vitalscope/platform/linux/unwind_call_site.h"
#include "vitalscope/platform/linux/unwind_program.h"
#include "vitalscope/platform/linux/unwind_prologue.h"

namespace qbv::linux_backend {

#if defined(__x86_64__)

namespace {

constexpr std::uint64_t kWord = 8;
constexpr std::uint64_t kSearched = 8 * 1024;
constexpr std::uint64_t kStackAlignment = 16;  // a frame record's, since calls keep the stack so aligned
constexpr int kMostSteps = 1000;

// The frame to be found, and what is known about it.
struct Target {
  const Frames& frames;
  bool innermost;
  const WalkState& state;
  FrameEntry entry;
  std::span<const std::uint8_t> code;  // from its start to where it stands
  std::uint64_t savedWords = 0;        // registers saved next below the frame pointer

  std::uint64_t pc() const { return state.registers.pc() - (state.exact ? 0U : 1U); }
};

// Registers that a function's first pushes have put below its saved frame pointer: places -24, -32, … from
// the frame address.
std::uint64_t savedWordsOf(const Row& row) {
  std::int64_t lowest = -2 * static_cast<std::int64_t>(kWord);
  for (unsigned number = 0; number < kRegisterCount; ++number) {
    const Rule& rule = row.rules[number];
    if (number != kReturnColumn && rule.kind == RuleKind::saved) lowest = std::min(lowest, rule.operand);
  }
  const std::uint64_t words = static_cast<std::uint64_t>(-lowest) / kWord - 2;
  return words <= kRegisterCount ? words : 0;
}

bool describe(Target& target) {
  UnwindImage image;
  Row row;
  const std::uint64_t pc = target.pc();
  if (!target.frames.find(pc, image) || !findFrameEntry(image, pc, target.entry)) return false;
  if (target.entry.common.signalFrame || !rulesAt(target.entry, pc, row)) return false;
  const std::uint64_t start = target.entry.code.begin;
  const std::uint64_t size = std::min(pc - start, image.readableFrom(start).size());
  target.code = {reinterpret_cast<const std::uint8_t*>(start), size};
  target.savedWords = row.frame.kind == RuleKind::frameRelative ? savedWordsOf(row) : 0;
  return true;
}

bool leadsToTheOutermost(const Frames& frames, WalkState& state) {
  StepStatus status = StepStatus::ok;
  for (int i = 0; status == StepStatus::ok && i < kMostSteps; ++i) status = stepFrame(frames, false, state);
  return status == StepStatus::ok || status == StepStatus::outermost;
}

enum class Trust : std::uint8_t { anyCall, certainCallOnly };

bool counts(const Target& target, std::uint64_t place, Trust trust) {
  WalkState trial = target.state;
  trial.give(kFramePointer, place);
  if (stepFrame(target.frames, target.innermost, trial) != StepStatus::ok || trial.exact) return false;
  const CallProof proof = provesCall(target.frames.find, trial.registers.pc(), target.entry.code.begin);
  if (proof == CallProof::none || trial.registers.sp() <= place) return false;
  if (trust == Trust::anyCall && proof == CallProof::certain) return true;
  return (trust == Trust::anyCall || proof == CallProof::certain) &&
         leadsToTheOutermost(target.frames, trial);
}

// Remembers the one place; a second one makes it none.
struct Only {
  std::optional<std::uint64_t> place;
  int found = 0;

  void add(std::uint64_t another) {
    place = another;
    ++found;
  }
  std::optional<std::uint64_t> get() const { return found == 1 ? place : std::nullopt; }
};

// A return address next above; spares the whole step for nearly all words.
bool mayBeRecord(const Target& target, std::uint64_t place) {
  std::uint64_t word = 0;
  UnwindImage image;
  return target.frames.stack.read(place + kWord, word) && word >= 0x1000 && target.frames.find(word, image);
}

// What an earlier call has left on the stack may look like the frame's record too, but it takes a frame that
// grows for that to stand at the very place where a plain reading of the code puts the record.
Only amongKnownSizes(const Target& target) {
  Only only;
  const FrameSizes sizes = frameSizes(target.code, target.savedWords);
  for (const std::uint64_t& size : sizes) {
    const std::uint64_t place = target.state.registers.sp() + size;
    if (!mayBeRecord(target, place) || !counts(target, place, Trust::anyCall)) continue;
    only.add(place);
    if (&size == sizes.begin() && !sizes.grows) return only;
  }
  return only;
}

Only amongAllPlaces(const Target& target) {
  Only only;
  const std::uint64_t from = target.state.registers.sp() + target.savedWords * kWord;
  const std::uint64_t first = (from + kStackAlignment - 1) / kStackAlignment * kStackAlignment;
  const StackView& stack = target.frames.stack;
  const StackView copyOnly{stack.bytes, stack.base, stack.size, nullptr};
  std::uint64_t word = 0;
  for (std::uint64_t place = first; place - first < kSearched && copyOnly.read(place + kWord, word);
       place += kStackAlignment) {
    if (mayBeRecord(target, place) && counts(target, place, Trust::certainCallOnly)) only.add(place);
  }
  return only;
}

}  // namespace

std::optional<std::uint64_t> findFramePointer(const Frames& frames, bool innermost, const WalkState& state) {
  Target target{frames, innermost, state, {}, {}, 0};
  if (!state.registers.has(kStackPointer) || !describe(target)) return std::nullopt;
  const Only known = amongKnownSizes(target);
  return known.found == 0 ? amongAllPlaces(target).get() : known.get();
}

#else

std::optional<std::uint64_t> findFramePointer(const Frames&, bool, const WalkState&) {
  return std::nullopt;
}

#endif

}  // namespace qbv::linux_backend
