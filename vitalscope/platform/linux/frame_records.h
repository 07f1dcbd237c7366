// Frame records: the chain that a capture walks, and the unwinders that find its return addresses.
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

// Follows the frame pointers through the stack: each record lies above the one before it. An Unwinder.
std::size_t unwindFramePointers(const Registers& registers, const StackView& stack,
                                std::uint64_t* returnAddresses, std::size_t max);

// The best this system has: call-frame information, and frame pointers where there is none. An Unwinder.
std::size_t unwindFrames(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
                         std::size_t max);

// Unwinds into a chain. False when the snapshot knows too few registers, unless whatever can be found without
// them will do.
bool unwindInto(CallChain& chain, Registers registers, const StackView& stack, bool whateverCanBeFound);

}  // namespace qbv::linux_backend
