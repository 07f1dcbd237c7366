#include "vitalscope/platform/linux/frame_records.h"

#include "vitalscope/platform/linux/unwind.h"

namespace qbv::linux_backend {

std::uint64_t layOut(const CallChain& chain, FrameRecords& records) {
  for (std::size_t i = 0; i < chain.count; ++i) {
    records[i] = {reinterpret_cast<std::uint64_t>(&records[i + 1]), chain.returnAddresses[i]};
  }
  records[chain.count] = {};
  return reinterpret_cast<std::uint64_t>(records.data());
}

bool unwindInto(CallChain& chain, const Registers& registers, const StackView& stack,
                bool whateverCanBeFound) {
  const Walk walk = walkStack(registers, stack, chain.returnAddresses.data(), kMaximumFrames);
  if (walk.end == WalkEnd::needsRegisters && !whateverCanBeFound) return false;
  chain.programCounter = registers.pc();
  chain.stackPointer = registers.sp();
  chain.count = walk.count;
  return true;
}

}  // namespace qbv::linux_backend
