#include "vitalscope/platform/linux/unwind.h"

#include <link.h>

#include "vitalscope/platform/linux/loader_list.h"
#include "vitalscope/platform/linux/unwind_frame_pointer.h"
#include "vitalscope/platform/linux/unwind_images.h"
#include "vitalscope/platform/linux/unwind_program.h"
#include "vitalscope/platform/linux/unwind_step.h"
#include "vitalscope/platform/linux/unwind_walk.h"

namespace qbv::linux_backend {

namespace {

// A return address at which a function begins, with no code before it, was put there by hand: by makecontext,
// at the bottom of a stack, or as a signal handler's way back.
StepStatus stepFromPlanted(const Frames& frames, const FrameEntry& entry, WalkState& state) {
  Row row;
  if (!entry.common.signalFrame) return StepStatus::outermost;
  if (!rulesAt(entry, entry.code.begin, row)) return StepStatus::damaged;
  return stepFull(row, entry, frames.stack, state);
}

StepStatus stepWithTables(const Frames& frames, std::uint64_t pc, bool innermost, WalkState& state) {
  UnwindImage image;
  FrameEntry entry;
  Row row;
  const bool inImage = frames.find(pc, image);
  if (!inImage || !findFrameEntry(image, pc, entry)) {
    const bool planted = inImage && !state.exact && findFrameEntry(image, pc + 1, entry);
    return planted ? stepFromPlanted(frames, entry, state)
                   : stepWithoutTables(frames.find, innermost, frames.stack, state);
  }
  if (!rulesAt(entry, pc, row)) return StepStatus::damaged;
  CompactRow compacted;
  if (entry.common.returnColumn != kReturnColumn || !compact(row, entry.common.signalFrame, compacted)) {
    return stepFull(row, entry, frames.stack, state);
  }
  if (frames.cache != nullptr) frames.cache->store(pc, frames.generation, compacted);
  return stepCompact(compacted, frames.stack, state);
}

// Where a call through a function that keeps return addresses elsewhere returns to, the entry tells on, also
// if the snapshot does not know the register that held it.
bool findMovedReturn(const Frames& frames, WalkState& state) {
  MovedEntry entry;
  const ReturnMark& mark = frames.stack.returns;
  if (mark.reader == nullptr ||
      !mark.reader->entry(mark, state.registers.pc(), state.registers.sp(), entry) ||
      entry.inRegister != state.missing)
    return false;
  state.give(entry.inRegister, entry.address);
  return true;
}

// A frame pointer that the snapshot does not know may be found on the stack.
StepStatus stepOrSearch(const Frames& frames, bool innermost, WalkState& state) {
  const StepStatus status = stepFrame(frames, innermost, state);
  if (status == StepStatus::needsRegister && findMovedReturn(frames, state))
    return stepFrame(frames, innermost, state);
  if (status != StepStatus::needsRegister || state.missing != kFramePointer) return status;
  const std::optional<std::uint64_t> found = findFramePointer(frames, innermost, state);
  if (!found) return status;
  state.give(kFramePointer, *found);
  return stepFrame(frames, innermost, state);
}

WalkEnd endFor(StepStatus status) {
  switch (status) {
    case StepStatus::outermost:
      return WalkEnd::outermost;
    case StepStatus::needsRegister:
      return WalkEnd::needsRegisters;
    case StepStatus::unreadable:
      return WalkEnd::leftCopy;
    default:
      return WalkEnd::broken;
  }
}

struct Request {
  const Registers& registers;
  const StackView& stack;
  std::uint64_t* returnAddresses;
  std::size_t max;
  Walk walk;
};

// Called for the first image of the list; the list is held still until it returns.
int walkHeld(dl_phdr_info* info, std::size_t, void* data) {
  static RowCache cache;
  Request& request = *static_cast<Request*>(data);
  request.walk =
      walkFrames(request.registers, request.stack, loadedImageAt, &cache,
                 static_cast<std::uint32_t>(info->dlpi_subs), request.returnAddresses, request.max);
  return 1;
}

}  // namespace

StepStatus stepFrame(const Frames& frames, bool innermost, WalkState& state) {
  // A return address may be the first of another function, if the call never returns.
  const std::uint64_t pc = state.registers.pc() - (state.exact ? 0U : 1U);
  CompactRow row;
  if (frames.cache != nullptr && frames.cache->find(pc, frames.generation, row)) {
    return stepCompact(row, frames.stack, state);
  }
  return stepWithTables(frames, pc, innermost, state);
}

Walk walkFrames(const Registers& registers, const StackView& stack, ImageFinder find, RowCache* cache,
                std::uint32_t generation, std::uint64_t* returnAddresses, std::size_t max) {
  const Frames frames{stack, find, cache, generation};
  WalkState state(registers, stack);
  Walk walk;
  while (walk.count < max) {
    const StepStatus status = stepOrSearch(frames, walk.count == 0, state);
    if (status != StepStatus::ok) {
      walk.end = endFor(status);
      walk.missing = state.missing;
      return walk;
    }
    returnAddresses[walk.count++] = state.registers.pc();
  }
  walk.end = WalkEnd::full;
  return walk;
}

Walk walkStack(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
               std::size_t max) {
  Request request{registers, stack, returnAddresses, max, {}};
  visitLoadedImages(walkHeld, &request);
  return request.walk;
}

std::size_t unwindStack(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
                        std::size_t max) {
  const Walk walk = walkStack(registers, stack, returnAddresses, max);
  return walk.end == WalkEnd::needsRegisters ? kNeedsRegisters : walk.count;
}

}  // namespace qbv::linux_backend
