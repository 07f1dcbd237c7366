// Frame tables made by hand in memory, and an image that consists of nothing else.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/unwind_entry.h"

namespace qbv::linux_backend {

using Bytes = std::vector<std::uint8_t>;

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Expression operations and call-frame operations take their operands as these.
inline Bytes little(std::uint64_t value, unsigned size) {
  Bytes bytes;
  for (unsigned i = 0; i < size; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  return bytes;
}

// Search header, one common entry and functions of 256 bytes from code() on. The header comes first, so its
// distances to the code are positive.
class TableBuilder {
 public:
  static constexpr std::uint64_t kFunctionSize = 256;

  explicit TableBuilder(const std::string& augmentation = "zR") : augmentation_(augmentation) {}

  // Before the functions are added. By default: the frame address is rsp + 8, the return address below it.
  void setCommonProgram(Bytes program) { commonProgram_ = std::move(program); }
  void leaveSearchTableOut() { searchTable_ = false; }
  // Answers the function's number.
  std::size_t addFunction(Bytes program) {
    programs_.push_back(std::move(program));
    return programs_.size() - 1;
  }

  // Lays the tables out; the image reads this object's memory.
  const UnwindImage& build() {
    memory_.assign(headerSize(), 0);
    base_ = 0;
    memory_.reserve(1 << 16);
    base_ = reinterpret_cast<std::uint64_t>(memory_.data());
    commonAt_ = memory_.size();
    appendRecord(little(0, 4) + commonBody());
    std::vector<std::size_t> entries;
    for (std::size_t i = 0; i < programs_.size(); ++i) {
      entries.push_back(memory_.size());
      appendRecord(little(memory_.size() + 4 - commonAt_, 4) + little(code(i), 8) + little(kFunctionSize, 8) +
                   Bytes{0} + programs_[i]);
    }
    appendBytes(little(0, 4));
    writeHeader(entries);
    image_ = {};
    image_.frameHeader = base_;
    image_.addSegment({base_, base_ + memory_.size()});
    return image_;
  }

  std::uint64_t code(std::size_t function) const { return base_ + (1U << 20) + function * kFunctionSize; }
  const UnwindImage& image() const { return image_; }
  Bytes& memory() { return memory_; }

 private:
  std::size_t headerSize() const { return 12 + programs_.size() * 8; }
  void appendBytes(const Bytes& bytes) { memory_.insert(memory_.end(), bytes.begin(), bytes.end()); }
  void appendRecord(const Bytes& body) { appendBytes(little(body.size(), 4) + body); }

  Bytes commonBody() const {
    Bytes body{1};
    for (const char letter : augmentation_) body.push_back(static_cast<std::uint8_t>(letter));
    // Code alignment 1, data alignment -8, return column 16, one byte of augmentation: absolute pointers.
    return body + Bytes{0, 1, 0x78, 16, 1, 0} + commonProgram_;
  }

  void writeHeader(const std::vector<std::size_t>& entries) {
    Bytes header{1, 0x1b, 0x03, 0x3b};
    if (!searchTable_) header[2] = header[3] = 0xff;
    header = header + little(commonAt_ - 4, 4) + little(entries.size(), 4);
    for (std::size_t i = 0; i < entries.size(); ++i) {
      header = header + little(code(i) - base_, 4) + little(entries[i], 4);
    }
    std::memcpy(memory_.data(), header.data(), header.size());
  }

  std::string augmentation_;
  Bytes commonProgram_{0x0c, 7, 8, 0x90, 1};
  bool searchTable_ = true;
  std::vector<Bytes> programs_;
  Bytes memory_;
  std::uint64_t base_ = 0;
  std::size_t commonAt_ = 0;
  UnwindImage image_;
};

}  // namespace qbv::linux_backend
