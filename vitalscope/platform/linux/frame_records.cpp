#include "vitalscope/platform/linux/frame_records.h"

namespace qbv::linux_backend {

std::uint64_t layOut(const CallChain& chain, FrameRecords& records) {
  for (std::size_t i = 0; i < chain.count; ++i) {
    records[i] = {reinterpret_cast<std::uint64_t>(&records[i + 1]), chain.returnAddresses[i]};
  }
  records[chain.count] = {};
  return reinterpret_cast<std::uint64_t>(records.data());
}

std::size_t unwindFramePointers(const Registers& registers, const StackView& stack,
                                std::uint64_t* returnAddresses, std::size_t max) {
  if (!registers.has(kFramePointer)) return kNeedsRegisters;
  std::uint64_t frame = registers.fp();
  std::uint64_t lowest = registers.sp();
  std::size_t count = 0;
  while (count < max && frame >= lowest && frame % sizeof frame == 0) {
    FrameRecord record;
    if (!stack.read(frame, record.previous) || !stack.read(frame + sizeof frame, record.returnAddress)) break;
    if (record.returnAddress == 0) break;
    returnAddresses[count++] = record.returnAddress;
    lowest = frame + sizeof record;
    frame = record.previous;
  }
  return count;
}

std::size_t unwindFrames(const Registers& registers, const StackView& stack, std::uint64_t* returnAddresses,
                         std::size_t max) {
  return unwindFramePointers(registers, stack, returnAddresses, max);
}

bool unwindInto(CallChain& chain, Registers registers, const StackView& stack, bool whateverCanBeFound) {
  chain.programCounter = registers.pc();
  chain.stackPointer = registers.sp();
  chain.count = 0;
  std::size_t count = unwindFrames(registers, stack, chain.returnAddresses.data(), kMaximumFrames);
  if (count == kNeedsRegisters && !whateverCanBeFound) return false;
  if (count == kNeedsRegisters) {
    // With zeros for what is not known the unwinder goes as far as it does not matter.
    registers.valid = (std::uint64_t{1} << kRegisterCount) - 1;
    count = unwindFrames(registers, stack, chain.returnAddresses.data(), kMaximumFrames);
  }
  if (count != kNeedsRegisters) chain.count = count;
  return true;
}

}  // namespace qbv::linux_backend
