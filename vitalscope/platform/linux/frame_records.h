// Frame records: the chain that a capture walks, laid out from what the unwinder found.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"

namespace qbv::linux_backend {

inline constexpr std::size_t kMaximumFrames = 100;

// What is kept of one snapshot: where the thread stood and whence it came.
struct CallChain {
  std::uint64_t programCounter = 0;
  std::uint64_t stackPointer = 0;
  std::size_t count = 0;
  std::array<std::uint64_t, kMaximumFrames> returnAddresses{};
};

struct FrameRecord {
  std::uint64_t previous = 0;
  std::uint64_t returnAddress = 0;
};

// One record more than frames: a walk does not list the outermost record's return address.
using FrameRecords = std::array<FrameRecord, kMaximumFrames + 1>;

// Lays the chain out, innermost first, closed by a record of zeros. Answers the address of the first record,
// which is there even for an empty chain.
std::uint64_t layOut(const CallChain& chain, FrameRecords& records);

// Unwinds a snapshot into a chain. False when it knows too few registers to find the frame that comes next,
// unless the frames found without them will do. Not in signal handlers, and never while the thread is
// stopped.
bool unwindInto(CallChain& chain, const Registers& registers, const StackView& stack,
                bool whateverCanBeFound);

}  // namespace qbv::linux_backend
