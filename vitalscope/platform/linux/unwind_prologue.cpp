#include "vitalscope/platform/linux/unwind_prologue.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kMostCode = 2048;
constexpr std::size_t kMostMoves = 12;
constexpr std::uint64_t kLargest = 1 << 20;
constexpr std::uint64_t kWord = 8;

using Code = std::span<const std::uint8_t>;

bool startsWith(Code code, std::initializer_list<std::uint8_t> pattern) {
  return code.size() >= pattern.size() && std::equal(pattern.begin(), pattern.end(), code.begin());
}

// The signed number of one or four bytes behind an instruction's first bytes; 0 when it is cut off.
std::int64_t byteAt(Code code, std::size_t at) {
  return at < code.size() ? static_cast<std::int8_t>(code[at]) : 0;
}
std::int64_t numberAt(Code code, std::size_t at) {
  std::int32_t number = 0;
  if (code.size() < at + sizeof number) return 0;
  std::memcpy(&number, code.data() + at, sizeof number);
  return number;
}

// By how much the instruction that may begin here lowers the stack pointer; 0: it does not.
std::int64_t lowering(Code code) {
  if ((code[0] & 0xfaU) != 0x48) return 0;
  if (startsWith(code, {0x48, 0x83, 0xec})) return byteAt(code, 3);           // sub rsp, n
  if (startsWith(code, {0x48, 0x81, 0xec})) return numberAt(code, 3);         // sub rsp, n
  if (startsWith(code, {0x48, 0x83, 0xc4})) return -byteAt(code, 3);          // add rsp, -n
  if (startsWith(code, {0x48, 0x81, 0xc4})) return -numberAt(code, 3);        // add rsp, -n
  if (startsWith(code, {0x48, 0x8d, 0x64, 0x24})) return -byteAt(code, 4);    // lea rsp, [rsp-n]
  if (startsWith(code, {0x48, 0x8d, 0xa4, 0x24})) return -numberAt(code, 4);  // lea rsp, [rsp-n]
  if (startsWith(code, {0x4c, 0x8d, 0x9c, 0x24})) return -numberAt(code, 4);  // lea r11, [rsp-n]: page
  if (startsWith(code, {0x49, 0x89, 0xe3, 0x49, 0x81, 0xeb})) return numberAt(code, 6);  // by page to r11
  return 0;
}

// sub rsp, register; mov rsp, register other than the frame pointer
bool lowersByRegister(Code code) {
  if (code.size() < 3 || (code[0] & 0xfbU) != 0x48 || (code[2] & 0xc7U) != 0xc4) return false;
  const bool fromFramePointer = code[0] == 0x48 && code[2] == 0xec;
  return code[1] == 0x29 || (code[1] == 0x89 && !fromFramePointer);
}

// The size that the first lowering behind "mov rbp, rsp" gives, or 0.
std::uint64_t plainSize(Code code) {
  std::size_t at = 0;
  while (at < code.size() && !startsWith(code.subspan(at), {0x48, 0x89, 0xe5}) &&
         !startsWith(code.subspan(at), {0x48, 0x8b, 0xec})) {
    ++at;
  }
  for (; at < code.size(); ++at) {
    const std::int64_t size = lowering(code.subspan(at));
    if (size > 0) return static_cast<std::uint64_t>(size);
  }
  return 0;
}

// A size and what a compiler may have pushed above it: the registers, and one word more to align the stack.
void addWithPushes(FrameSizes& sizes, std::uint64_t size, std::uint64_t savedWords) {
  sizes.add(size + savedWords * kWord);
  sizes.add(size + savedWords * kWord + kWord);
  sizes.add(size);
}

}  // namespace

void FrameSizes::add(std::uint64_t size) {
  if (size % kWord != 0 || size >= kLargest || count_ == kMost || std::find(begin(), end(), size) != end()) {
    return;
  }
  sizes_[count_++] = size;
}

FrameSizes frameSizes(std::span<const std::uint8_t> code, std::uint64_t savedWords) {
  code = code.first(std::min(code.size(), kMostCode));
  FrameSizes sizes;
  sizes.add(plainSize(code) + savedWords * kWord);
  addWithPushes(sizes, 0, savedWords);
  std::uint64_t sum = 0;
  for (std::size_t at = 0, moves = 0; at < code.size() && moves < kMostMoves; ++at) {
    sizes.grows = sizes.grows || lowersByRegister(code.subspan(at));
    const std::int64_t size = lowering(code.subspan(at));
    if (size <= 0) continue;
    ++moves;
    addWithPushes(sizes, static_cast<std::uint64_t>(size), savedWords);
    // Large frames are made in several moves.
    sum += static_cast<std::uint64_t>(size);
    addWithPushes(sizes, sum, savedWords);
  }
  return sizes;
}

}  // namespace qbv::linux_backend
