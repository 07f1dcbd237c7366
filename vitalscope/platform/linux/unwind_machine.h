// What the unwinder has to know of the machine beyond the register numbers in stack_view.h.
#pragma once

#include <array>
#include <cstdint>

#include "vitalscope/platform/linux/stack_view.h"

namespace qbv::linux_backend {

#if defined(__x86_64__)
// Call-frame information keeps the return address in a column of its own; a call pushes it.
inline constexpr unsigned kReturnColumn = kProgramCounter;
// The registers a compiled frame saves: what a cached row can restore. The return column comes first.
inline constexpr std::array<std::uint8_t, 7> kTrackedRegisters{16, 6, 3, 12, 13, 14, 15};
inline constexpr std::uint64_t kCodeAddressMask = ~std::uint64_t{0};
#elif defined(__aarch64__)
inline constexpr unsigned kReturnColumn = kLinkRegister;
inline constexpr std::array<std::uint8_t, 7> kTrackedRegisters{30, 29, 19, 20, 21, 22, 28};
// A signed return address carries its authentication code above the 48 bits of a user address; taking it off
// always is right whether the sign state of the row says "signed" or not.
inline constexpr std::uint64_t kCodeAddressMask = (std::uint64_t{1} << 48) - 1;
#endif

// All registers known.
inline constexpr std::uint64_t kAllRegisters = (std::uint64_t{1} << kRegisterCount) - 1;

}  // namespace qbv::linux_backend
