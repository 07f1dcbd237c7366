#include "vitalscope/platform/linux/unwind_call_site.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "vitalscope/platform/linux/unwind_entry.h"

namespace qbv::linux_backend {

#if defined(__x86_64__)

namespace {

constexpr std::size_t kLongestCall = 7;
constexpr int kMostStubs = 4;
constexpr std::uint64_t kMostJumpSearch = 16 * 1024;

std::uint64_t plus(std::uint64_t address, std::int32_t distance) {
  return address + static_cast<std::uint64_t>(std::int64_t{distance});
}

std::uint64_t nearTarget(std::uint64_t next, std::uint8_t distance) {
  return plus(next, static_cast<std::int8_t>(distance));
}

std::int32_t numberAt(const std::uint8_t* code) {
  std::int32_t number = 0;
  std::memcpy(&number, code, sizeof number);
  return number;
}

// Whether ff and an operand of this many bytes in all is a call: the operand's form fixes its length.
bool callOfLength(const std::uint8_t* code, std::size_t length) {
  if (code[0] != 0xff || (code[1] & 0x38U) != 0x10) return false;
  const unsigned mode = code[1] >> 6U, place = code[1] & 7U;
  const bool indexed = mode != 3 && place == 4;
  const bool wide = mode == 2 || (mode == 0 && (indexed ? (code[2] & 7U) == 5 : place == 5));
  return length == 2U + (indexed ? 1U : 0U) + (wide ? 4U : mode == 1 ? 1U : 0U);
}

bool readCode(ImageFinder find, std::uint64_t address, std::uint8_t* bytes, std::size_t size) {
  UnwindImage image;
  if (!find(address, image)) return false;
  const Extent readable = image.readableFrom(address);
  if (readable.size() < size) return false;
  std::memcpy(bytes, reinterpret_cast<const void*>(address), size);
  return true;
}

// The pointer that the linker or the loader has put into an image's own slot; 0 when it cannot be read.
std::uint64_t slotValue(ImageFinder find, std::uint64_t slot) {
  std::uint64_t value = 0;
  return readCode(find, slot, reinterpret_cast<std::uint8_t*>(&value), sizeof value) ? value : 0;
}

// Where a stub goes on to that consists of a jump, perhaps behind a mark for indirect calls; 0: it is none.
std::uint64_t stubTarget(ImageFinder find, std::uint64_t stub) {
  constexpr std::uint8_t kMark[] = {0xf3, 0x0f, 0x1e, 0xfa};
  std::array<std::uint8_t, 12> code{};
  if (!readCode(find, stub, code.data(), code.size())) return 0;
  std::size_t at = std::memcmp(code.data(), kMark, sizeof kMark) == 0 ? sizeof kMark : 0;
  if (code[at] == 0xf2) ++at;
  if (code[at] == 0xeb) return nearTarget(stub + at + 2, code[at + 1]);
  if (code[at] == 0xe9) return plus(stub + at + 5, numberAt(&code[at + 1]));
  if (code[at] == 0xff && code[at + 1] == 0x25) {
    return slotValue(find, plus(stub + at + 6, numberAt(&code[at + 2])));
  }
  return 0;
}

// Whether a jump of the function goes to start. Bytes that only look like one would have to name that very
// address.
bool jumpsTo(const UnwindImage& image, const Extent& function, std::uint64_t start) {
  const Extent readable = image.readableFrom(function.begin);
  const std::uint64_t size = std::min({function.size(), readable.size(), kMostJumpSearch});
  const auto* const code = reinterpret_cast<const std::uint8_t*>(function.begin);
  for (std::uint64_t at = 0; at + 2 <= size; ++at) {
    const std::uint64_t address = function.begin + at;
    if (code[at] == 0xeb && nearTarget(address + 2, code[at + 1]) == start) return true;
    const bool far = code[at] == 0xe9 || (at > 0 && code[at - 1] == 0x0f && (code[at] & 0xf0U) == 0x80);
    if (far && at + 5 <= size && plus(address + 5, numberAt(code + at + 1)) == start) return true;
  }
  return false;
}

// Follows a call into stubs, and one step into a function that ends by jumping to another.
bool leadsTo(ImageFinder find, std::uint64_t target, std::uint64_t start) {
  for (int stubs = 0; stubs < kMostStubs && target != 0; ++stubs) {
    if (target == start) return true;
    UnwindImage image;
    FrameEntry entry;
    if (find(target, image) && findFrameEntry(image, target, entry) && entry.code.begin == target &&
        jumpsTo(image, entry.code, start)) {
      return true;
    }
    target = stubTarget(find, target);
  }
  return false;
}

}  // namespace

CallSite callBefore(std::span<const std::uint8_t> code, std::uint64_t returnAddress) {
  if (code.size() < kLongestCall) return {};
  const std::uint8_t* const end = code.data() + code.size();
  if (callOfLength(end - 6, 6) && end[-5] == 0x15) {
    return {CallForm::slot, plus(returnAddress, numberAt(end - 4))};
  }
  if (end[-5] == 0xe8) return {CallForm::direct, plus(returnAddress, numberAt(end - 4))};
  for (const std::size_t length : {2U, 3U, 4U, 6U, 7U}) {
    if (callOfLength(end - length, length)) return {CallForm::indirect, 0};
  }
  return {};
}

CallProof provesCall(ImageFinder find, std::uint64_t returnAddress, std::uint64_t start) {
  UnwindImage image;
  FrameEntry caller;
  std::array<std::uint8_t, 8> code{};
  if (returnAddress < 0x1000 || !find(returnAddress - 1, image) ||
      !findFrameEntry(image, returnAddress - 1, caller) ||
      !readCode(find, returnAddress - code.size(), code.data(), code.size())) {
    return CallProof::none;
  }
  const CallSite call = callBefore(code, returnAddress);
  switch (call.form) {
    case CallForm::direct:
      return leadsTo(find, call.target, start) ? CallProof::certain : CallProof::none;
    case CallForm::slot:
      return leadsTo(find, slotValue(find, call.target), start) ? CallProof::certain : CallProof::possible;
    case CallForm::indirect:
      return CallProof::possible;
    default:
      return CallProof::none;
  }
}

#else

CallSite callBefore(std::span<const std::uint8_t>, std::uint64_t) {
  return {};
}
CallProof provesCall(ImageFinder, std::uint64_t, std::uint64_t) {
  return CallProof::none;
}

#endif

}  // namespace qbv::linux_backend
