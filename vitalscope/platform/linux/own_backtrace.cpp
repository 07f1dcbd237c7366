#include "vitalscope/platform/linux/own_backtrace.h"

#include <array>

#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/unwind.h"

namespace qbv::linux_backend {

namespace {

// Copied in one go; frames beyond are read word by word. The copy lies on this very stack, which may be a
// small one.
constexpr std::size_t kCopied = 8 * 1024;

}  // namespace

int ownBacktrace(const Registers& registers, void** buffer, std::size_t max) {
  static_assert(sizeof(std::uint64_t) == sizeof(void*));
  std::array<std::byte, kCopied> copy;
  const std::size_t copied = safeRead(registers.sp(), copy.size(), copy.data());
  const StackView stack{copy.data(), registers.sp(), copied, readWord};
  return static_cast<int>(walkStack(registers, stack, reinterpret_cast<std::uint64_t*>(buffer), max).count);
}

}  // namespace qbv::linux_backend
