// What the first instructions of a function tell about the size of its frame.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace qbv::linux_backend {

// Distances from the stack pointer up to the frame pointer, in bytes; each may be the right one, and the
// first is the one that a plain reading of the instructions gives.
class FrameSizes {
 public:
  static constexpr std::size_t kMost = 48;

  // An instruction that lowers the stack pointer by an amount not known before stands in the code.
  bool grows = false;

  void add(std::uint64_t size);
  const std::uint64_t* begin() const { return sizes_.data(); }
  const std::uint64_t* end() const { return sizes_.data() + count_; }
  std::size_t count() const { return count_; }

 private:
  std::array<std::uint64_t, kMost> sizes_{};
  std::size_t count_ = 0;
};

// code: a function's bytes from its start to where it stands. The function keeps a frame pointer and has
// pushed savedWords registers below it. Instructions are recognised wherever they stand, so what a compiler
// puts between them does not matter, and a size may be one that only looks like an instruction: whoever uses
// it checks it. Looks at 2,048 bytes at most, and never beyond the span. Sizes of multiples of 8 below 1 MB.
FrameSizes frameSizes(std::span<const std::uint8_t> code, std::uint64_t savedWords);

}  // namespace qbv::linux_backend
