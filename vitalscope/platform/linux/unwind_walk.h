// One step of a walk, with everything a step works on; shared by the walk and by those who try a step out.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_cache.h"
#include "vitalscope/platform/linux/unwind_fallback.h"
#include "vitalscope/platform/linux/unwind_step.h"

namespace qbv::linux_backend {

struct Frames {
  const StackView& stack;
  ImageFinder find;
  RowCache* cache;  // may be null
  std::uint32_t generation;
};

// Replaces the registers by the caller's. innermost: no step came before this one. Same context as walkStack.
StepStatus stepFrame(const Frames& frames, bool innermost, WalkState& state);

}  // namespace qbv::linux_backend
