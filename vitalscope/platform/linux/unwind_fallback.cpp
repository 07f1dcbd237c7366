#include "vitalscope/platform/linux/unwind_fallback.h"

#include <array>
#include <cstring>
#include <initializer_list>

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kLowestCode = 0x1000;
constexpr std::uint64_t kHighestCode = std::uint64_t{1} << 47;

using Instructions = std::array<std::uint8_t, 8>;

// What is known of a piece of code.
struct Code {
  bool readable = false;
  bool inImage = false;
  Instructions bytes{};
};

// Any place of an image may be asked about, its constants and the gaps between them too: no sanitizer's
// business.
__attribute__((no_sanitize("address"))) std::uint64_t imageWord(std::uint64_t address) {
  std::uint64_t word;
  std::memcpy(&word, reinterpret_cast<const void*>(address), sizeof word);
  return word;
}

Code codeAt(std::uint64_t address, ImageFinder find, const StackView& stack) {
  Code code;
  UnwindImage image;
  std::uint64_t word = 0;
  code.inImage = find(address, image);
  if (code.inImage) {
    const Extent bytes = image.readableFrom(address);
    code.readable = bytes.size() >= sizeof word;
    if (code.readable) word = imageWord(bytes.begin);
  } else {
    code.readable = stack.read(address, word);
  }
  std::memcpy(code.bytes.data(), &word, sizeof word);
  return code;
}

#if defined(__x86_64__)

bool startsWith(const Instructions& code, std::initializer_list<std::uint8_t> pattern) {
  return std::memcmp(code.data(), pattern.begin(), pattern.size()) == 0;
}

// The bytes end where the return address points: call rel32, or call through a register or memory operand of
// any length.
bool endsWithCall(const Instructions& code) {
  if (code[3] == 0xe8) return true;
  for (const std::size_t length : {2U, 3U, 4U, 6U, 7U}) {
    if (code[8 - length] == 0xff && (code[9 - length] & 0x38U) == 0x10) return true;
  }
  return false;
}

// How far above the stack pointer the return address is, judged by the instruction about to run; -1: it does
// not tell. The frame pointer is not yet, or no more, this function's.
int returnAddressDistance(const Instructions& code) {
  if (startsWith(code, {0x48, 0x89, 0xe5}) || startsWith(code, {0x48, 0x8b, 0xec})) return 8;  // mov rbp, rsp
  const bool atEntry = code[0] == 0x55 || startsWith(code, {0xf3, 0x0f, 0x1e, 0xfa});  // push rbp, endbr
  const bool atReturn = code[0] == 0xc3 || startsWith(code, {0xf3, 0xc3});
  const bool inStub =
      startsWith(code, {0xff, 0x25}) || startsWith(code, {0xf2, 0xff, 0x25}) || code[0] == 0x68;
  return atEntry || atReturn || inStub ? 0 : -1;
}

// mov rax, 15; syscall
bool isSignalReturn(const Instructions& code) {
  return startsWith(code, {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f});
}

// The saved context lies at the stack pointer: its registers from byte 40 on, in this order.
StepStatus returnFromSignal(const StackView& stack, WalkState& state) {
  constexpr std::array<std::uint8_t, 17> kOrder{8, 9, 10, 11, 12, 13, 14, 15, 5, 4, 6, 3, 1, 0, 2, 7, 16};
  constexpr std::uint64_t kFirstRegister = 40;
  const std::uint64_t context = state.registers.sp();
  std::array<std::uint64_t, kOrder.size()> values{};
  for (std::size_t i = 0; i < kOrder.size(); ++i) {
    if (!stack.read(context + kFirstRegister + i * 8, values[i])) return StepStatus::unreadable;
  }
  if (!state.order.admits(values[15], true)) return StepStatus::damaged;
  for (std::size_t i = 0; i < kOrder.size(); ++i) state.give(kOrder[i], values[i]);
  state.exact = true;
  return StepStatus::ok;
}

#elif defined(__aarch64__)

bool endsWithCall(const Instructions& code) {
  std::uint32_t last = 0;
  std::memcpy(&last, code.data() + 4, sizeof last);
  return (last & 0xfc000000U) == 0x94000000U || (last & 0xfefff000U) == 0xd63f0000U;
}

int returnAddressDistance(const Instructions&) {
  return -1;
}
bool isSignalReturn(const Instructions&) {
  return false;
}
StepStatus returnFromSignal(const StackView&, WalkState&) {
  return StepStatus::damaged;
}

#endif

bool plausibleReturn(std::uint64_t address, ImageFinder find, const StackView& stack) {
  if (address < kLowestCode || address >= kHighestCode) return false;
  const Code code = codeAt(address - 8, find, stack);
  if (code.readable) return endsWithCall(code.bytes);
  return !code.inImage && stack.elsewhere == nullptr;
}

// The caller, whose stack pointer is above; its saved registers may be anywhere and are lost.
StepStatus accept(std::uint64_t returnAddress, std::uint64_t frame, WalkState& state) {
  if (!state.order.admits(frame, false)) return StepStatus::damaged;
  for (const unsigned number : kTrackedRegisters) {
    if (number != kFramePointer) state.take(number);
  }
  state.registers.set(kStackPointer, frame);
  state.registers.set(kProgramCounter, returnAddress & kCodeAddressMask);
  state.exact = false;
  return StepStatus::ok;
}

StepStatus followFramePointer(ImageFinder find, const StackView& stack, WalkState& state) {
  if (!state.registers.has(kFramePointer)) return state.missed(kFramePointer);
  const std::uint64_t record = state.registers.fp();
  std::uint64_t outer = 0, returnAddress = 0;
  if (record % 8 != 0 || record < state.registers.sp()) return StepStatus::damaged;
  if (!stack.read(record, outer) || !stack.read(record + 8, returnAddress)) return StepStatus::unreadable;
  returnAddress &= kCodeAddressMask;
  if (returnAddress == 0) return StepStatus::outermost;
  if (!plausibleReturn(returnAddress, find, stack)) return StepStatus::damaged;
  const StepStatus status = accept(returnAddress, record + 16, state);
  if (status == StepStatus::ok) state.give(kFramePointer, outer);
  return status;
}

// The return address is distance bytes above the stack pointer, with the saved frame pointer below it if
// there is room for one.
StepStatus stepAtEdge(unsigned distance, ImageFinder find, const StackView& stack, WalkState& state) {
  const std::uint64_t place = state.registers.sp() + distance;
  std::uint64_t returnAddress = 0, outer = 0;
  if (!stack.read(place, returnAddress) || !plausibleReturn(returnAddress, find, stack)) {
    return StepStatus::damaged;
  }
  if (distance != 0 && !stack.read(place - 8, outer)) return StepStatus::unreadable;
  const StepStatus status = accept(returnAddress, place + 8, state);
  if (status == StepStatus::ok && distance != 0) state.give(kFramePointer, outer);
  return status;
}

}  // namespace

StepStatus stepWithoutTables(ImageFinder find, bool innermost, const StackView& stack, WalkState& state) {
  const std::uint64_t pc = state.registers.pc();
  const Code code = codeAt(pc, find, stack);
  if (code.readable && isSignalReturn(code.bytes)) return returnFromSignal(stack, state);
  const bool calledNowhere = pc < kLowestCode || (!code.readable && stack.elsewhere != nullptr);
  const int distance = calledNowhere ? 0 : code.readable ? returnAddressDistance(code.bytes) : -1;
  if (innermost && kReturnColumn == kProgramCounter && distance >= 0 &&
      stepAtEdge(static_cast<unsigned>(distance), find, stack, state) == StepStatus::ok) {
    return StepStatus::ok;
  }
  if (calledNowhere) return StepStatus::damaged;
  return followFramePointer(find, stack, state);
}

}  // namespace qbv::linux_backend
