// Frame tables, call-frame programs, expressions, registers and stacks of arbitrary bytes. Nothing may be
// read outside of them, every walk ends, and a walk from remembered rows finds what one without them finds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "vitalscope/platform/linux/unwind.h"
#include "vitalscope/platform/linux/unwind_expression.h"
#include "vitalscope/platform/linux/unwind_program.h"

namespace {

using namespace qbv::linux_backend;

constexpr std::uint64_t kStackBase = 0x7000'0000'0000;
constexpr std::uint64_t kCodeDistance = 1 << 20;  // from the tables to the code they describe
constexpr std::size_t kMost = 64;

std::uint64_t gTables = 0;
UnwindImage gImage;

bool findImage(std::uint64_t pc, UnwindImage& image) {
  if (pc - (gTables + kCodeDistance) >= 0x10000) return false;
  image = gImage;
  return true;
}

// Memory beside the copy: half of it is there.
bool elsewhere(std::uint64_t address, std::uint64_t& word) {
  word = address * 0x9e3779b97f4a7c15U;
  return (address & 0x1000) != 0;
}

// Words that begin with c0de and 57ac lie in the code and on the stack, wherever those are.
std::uint64_t place(std::uint64_t word) {
  switch (word >> 48) {
    case 0xc0de:
      return gTables + kCodeDistance + (word & 0xffff);
    case 0x57ac:
      return kStackBase + (word & 0xffff);
    default:
      return word;
  }
}

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  std::uint64_t word() {
    std::uint64_t word = 0;
    const std::size_t size = std::min<std::size_t>(sizeof word, rest());
    if (size != 0) std::memcpy(&word, at_, size);
    at_ += size;
    return word;
  }
  std::uint8_t byte() { return at_ == end_ ? std::uint8_t{0} : *at_++; }
  std::size_t rest() const { return static_cast<std::size_t>(end_ - at_); }
  // A block of exactly the size, so that the sanitizer sees the first byte read outside.
  std::unique_ptr<std::uint8_t[]> block(std::size_t size) {
    std::unique_ptr<std::uint8_t[]> bytes(new std::uint8_t[size]);
    if (size != 0) std::memcpy(bytes.get(), at_, size);
    at_ += size;
    return bytes;
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

std::vector<std::uint64_t> walk(const Registers& registers, const StackView& stack, RowCache* cache,
                                std::uint32_t generation, WalkEnd& end) {
  std::vector<std::uint64_t> addresses(kMost);
  const Walk result =
      walkFrames(registers, stack, findImage, cache, generation, addresses.data(), addresses.size());
  if (result.count > kMost) std::abort();
  addresses.resize(result.count);
  end = result.end;
  return addresses;
}

// The size of the tables, the tables, six registers and what is known of them, the stack.
void walkBytes(Input& input) {
  static RowCache cache;
  static std::uint32_t generation = 0;
  const std::size_t size = std::min<std::size_t>(input.byte() * 4U, input.rest());
  const std::unique_ptr<std::uint8_t[]> tables = input.block(size);
  gTables = reinterpret_cast<std::uint64_t>(tables.get());
  gImage = {};
  gImage.frameHeader = gTables;
  gImage.addSegment({gTables, gTables + size});
  const std::uint8_t options = input.byte();
  Registers registers;
  registers.set(kProgramCounter, gTables + kCodeDistance + input.byte());
  registers.set(kStackPointer, kStackBase + (options & 0x38U));
  for (const unsigned number : {3U, 6U, 10U, 12U}) {
    const std::uint64_t value = place(input.word());
    if (((options >> (number % 3)) & 1) != 0) registers.set(number, value);
  }
  std::vector<std::uint64_t> words;
  while (input.rest() != 0) words.push_back(place(input.word()));
  const StackView stack{reinterpret_cast<const std::byte*>(words.data()), kStackBase, words.size() * 8,
                        (options & 0x80) != 0 ? elsewhere : nullptr};
  WalkEnd plainEnd{}, coldEnd{}, warmEnd{};
  const std::vector<std::uint64_t> plain = walk(registers, stack, nullptr, 0, plainEnd);
  ++generation;
  if (walk(registers, stack, &cache, generation, coldEnd) != plain || coldEnd != plainEnd) std::abort();
  if (walk(registers, stack, &cache, generation, warmEnd) != plain || warmEnd != plainEnd) std::abort();
}

void runProgram(Input& input) {
  FrameEntry entry;
  entry.common.codeAlignment = input.byte();
  entry.common.dataAlignment = static_cast<std::int8_t>(input.byte());
  entry.common.pointerEncoding = input.byte();
  entry.code = {0x1000, 0x2000};
  const std::uint64_t pc = 0x1000 + input.byte() * 16U;
  const std::size_t commonSize = std::min<std::size_t>(input.byte(), input.rest());
  const std::unique_ptr<std::uint8_t[]> common = input.block(commonSize);
  const std::size_t size = input.rest();
  const std::unique_ptr<std::uint8_t[]> own = input.block(size);
  const auto commonAt = reinterpret_cast<std::uint64_t>(common.get());
  const auto at = reinterpret_cast<std::uint64_t>(own.get());
  entry.common.program = {commonAt, commonAt + commonSize};
  entry.program = {at, at + size};
  Row row;
  CompactRow compacted;
  if (rulesAt(entry, pc, row)) compact(row, false, compacted);
}

void runExpression(Input& input) {
  Registers registers;
  for (unsigned number = 0; number < kRegisterCount; number += 2) registers.set(number, place(input.word()));
  const std::size_t size = input.rest();
  const std::unique_ptr<std::uint8_t[]> bytes = input.block(size);
  const auto at = reinterpret_cast<std::uint64_t>(bytes.get());
  const std::uint64_t words[4] = {1, 2, 3, kStackBase};
  const StackView stack{reinterpret_cast<const std::byte*>(words), kStackBase, sizeof words, elsewhere};
  FrameInput frame(registers, stack);
  evaluate({at, at + size}, frame, words);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  switch (input.byte() % 4) {
    case 0:
      runProgram(input);
      break;
    case 1:
      runExpression(input);
      break;
    default:
      walkBytes(input);
  }
  return 0;
}
