// Walks the frames of a thread from a snapshot of its registers and stack, with the call-frame information of
// the loaded images.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"
#include "vitalscope/platform/linux/unwind_cache.h"
#include "vitalscope/platform/linux/unwind_fallback.h"

namespace qbv::linux_backend {

enum class WalkEnd : std::uint8_t {
  outermost,       // the whole chain was walked
  full,            // max frames were found, there may be more
  needsRegisters,  // the next frame needs a register that the snapshot does not know
  leftCopy,        // the next frame is on memory that may not or cannot be read
  broken,          // no frame information and no frame record, or a damaged stack
};

struct Walk {
  std::size_t count = 0;  // return addresses found, whatever the end is
  WalkEnd end = WalkEnd::broken;
  unsigned missing = kRegisterCount;  // which register was needed
};

// Finds up to max return addresses, innermost first, without the program counter. The address at which a
// signal struck is among them, behind the one of the signal handler's way back.
//
// Any number of threads at once, with any registers and stack: it reads only the view and the loaded images,
// takes nothing from the heap, and ends after at most max frames. Holds the loader's list of images still for
// the walk (microseconds), so that no library goes away underneath; hence never while a thread is stopped,
// and not in signal handlers. Never resolves a symbol.
Walk walkStack(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
               std::size_t max);

// The same as an Unwinder.
std::size_t unwindStack(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
                        std::size_t max);

// The walk itself over images that find gives; cache may be null. generation: see RowCache. For walkStack and
// for tests with images of their own.
Walk walkFrames(const Registers& registers, const StackView& stack, ImageFinder find, RowCache* cache,
                std::uint32_t generation, std::uint64_t* returnAddresses, std::size_t max);

}  // namespace qbv::linux_backend
