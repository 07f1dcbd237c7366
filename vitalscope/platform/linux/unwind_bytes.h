// Bounded reading of the bytes of frame tables: a damaged table gives zeros and a failure, never a fault.
#pragma once

#include <cstdint>
#include <cstring>

namespace qbv::linux_backend {

// A piece of memory that may be read, [begin, end).
struct Extent {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;

  bool contains(std::uint64_t address, std::uint64_t size = 1) const {
    return address >= begin && address <= end && size <= end - address;
  }
  std::uint64_t size() const { return end - begin; }
};

// How pointers are stored in frame tables: a format in the low four bits, what they are relative to above.
inline constexpr std::uint8_t kPointerOmitted = 0xff;
inline constexpr std::uint8_t kPointerAligned = 0x50;
inline constexpr std::uint8_t kPointerIndirect = 0x80;

// Reads upwards from begin of an extent. After the first read past its end ok() is false, every read gives 0
// and atEnd() is true, so that a loop over the bytes ends. Any thread; takes nothing from the heap.
class ByteReader {
 public:
  explicit ByteReader(Extent extent) : at_(extent.begin), end_(extent.end) {}

  bool ok() const { return ok_; }
  bool atEnd() const { return at_ >= end_; }
  std::uint64_t at() const { return at_; }
  Extent rest() const { return {at_, end_}; }

  template <typename T>
  T fixed() {
    T value{};
    if (!require(sizeof value)) return value;
    std::memcpy(&value, reinterpret_cast<const void*>(at_), sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::uint8_t u8() { return fixed<std::uint8_t>(); }
  // Variable-length numbers; bits above the 64th are dropped.
  std::uint64_t uleb() {
    // Nearly all are of one byte.
    if (at_ < end_ && ok_) {
      const std::uint8_t first = *reinterpret_cast<const std::uint8_t*>(at_);
      if (first < 0x80) {
        ++at_;
        return first;
      }
    }
    return longUleb();
  }
  std::int64_t sleb();
  // A pointer stored in the given way; what an indirect one points at is not followed. dataBase is the origin
  // of data-relative ones. Text- and function-relative ones fail.
  std::uint64_t pointer(std::uint8_t encoding, std::uint64_t dataBase = 0);
  void skip(std::uint64_t size);
  // The next size bytes, which are passed over.
  Extent block(std::uint64_t size);
  void fail();

 private:
  bool require(std::uint64_t size) {
    if (ok_ && at_ <= end_ && size <= end_ - at_) return true;
    fail();
    return false;
  }
  std::uint64_t longUleb();
  std::uint64_t pointerValue(std::uint8_t format);

  std::uint64_t at_;
  std::uint64_t end_;
  bool ok_ = true;
};

}  // namespace qbv::linux_backend
