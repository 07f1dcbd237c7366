// What a return address tells about the call it comes back from.
#pragma once

#include <cstdint>
#include <span>

#include "vitalscope/platform/linux/unwind_fallback.h"

namespace qbv::linux_backend {

enum class CallForm : std::uint8_t {
  none,      // the bytes before the address are no call
  direct,    // of a fixed address
  slot,      // of an address kept at a fixed place
  indirect,  // of an address in a register or somewhere in memory
};

struct CallSite {
  CallForm form = CallForm::none;
  std::uint64_t target = 0;  // of a direct call; for slot, where the address is kept
};

// code: the bytes that end where the return address points; at least 7 of them, or there is no call. A pure
// function of its arguments.
CallSite callBefore(std::span<const std::uint8_t> code, std::uint64_t returnAddress);

enum class CallProof : std::uint8_t {
  none,      // it comes back from a call of another function, or from none
  possible,  // from a call whose target the code does not fix
  certain,   // from a call of this function
};

// Whether a call that returns to this address called the function that begins at start: directly, through
// stubs of the linker, or by a function that goes on to it with a jump. The address has to lie in code with
// frame information. Same context as walkStack.
CallProof provesCall(ImageFinder find, std::uint64_t returnAddress, std::uint64_t start);

}  // namespace qbv::linux_backend
