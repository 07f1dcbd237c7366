// One frame up through code that no frame information covers: code made at run time, hand-written assembler.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_entry.h"
#include "vitalscope/platform/linux/unwind_step.h"

namespace qbv::linux_backend {

// Finds the image that holds a code address, see loadedImageAt.
using ImageFinder = bool (*)(std::uint64_t pc, UnwindImage& image);

// In this order: a signal handler's way back is known by its instructions; in the innermost frame an
// instruction that only stands where a function is entered or left tells where the return address is;
// everywhere the frame pointer is followed. The return address found has to stand behind a call instruction
// (outside of images that is checked only if the view can read elsewhere). Reads a handful of words.
StepStatus stepWithoutTables(ImageFinder find, bool innermost, const StackView& stack, WalkState& state);

}  // namespace qbv::linux_backend
