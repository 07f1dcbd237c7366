// Finds the frame pointer of a function from the stack alone, for snapshots that were taken without it.
#pragma once

#include <cstdint>
#include <optional>

#include "vitalscope/platform/linux/unwind_walk.h"

namespace qbv::linux_backend {

// The frame pointer of the frame that the walk stands in, whose rules need it. The size of its frame, as its
// first instructions tell it, gives places to look at; where they do not tell (its frame grows while it runs)
// all places of the next 8 KB of the stack are looked at. A place counts when the rules, applied to it, lead
// to an address behind a call of this very function; a call through a pointer counts only for a frame of
// known size, and only if the walk can go on from there to the outermost frame. Nothing unless exactly one
// place counts. Same context as walkStack. Nothing on machines whose rules do not need it.
std::optional<std::uint64_t> findFramePointer(const Frames& frames, bool innermost, const WalkState& state);

}  // namespace qbv::linux_backend
