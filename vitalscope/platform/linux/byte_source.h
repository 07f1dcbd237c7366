// Bytes of an ELF object that are copied before they are believed: a file, or memory that may go away.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "vitalscope/platform/linux/pages.h"

namespace qbv::linux_backend {

struct AddressRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  bool contains(std::uint64_t address) const { return address >= start && address < end; }
  bool contains(std::uint64_t address, std::uint64_t size) const {
    return address >= start && address <= end && size <= end - address;
  }
};

// Positions are offsets for a file and addresses for memory. Reads neither fault nor leave the range.
class ByteSource {
 public:
  explicit ByteSource(AddressRange range) : range_(range) {}
  virtual ~ByteSource() = default;
  ByteSource(const ByteSource&) = delete;
  ByteSource& operator=(const ByteSource&) = delete;

  const AddressRange& range() const { return range_; }

  // All of it or false.
  bool read(std::uint64_t position, void* to, std::size_t size) const {
    return range_.contains(position, size) && copy(position, to, size);
  }
  template <typename T>
  bool read(std::uint64_t position, T& value) const {
    return read(position, static_cast<void*>(&value), sizeof value);
  }
  // count values, appended to values.
  template <typename T>
  bool append(std::uint64_t position, std::uint64_t count, PageVector<T>& values) const {
    if (count > (range_.end - range_.start) / sizeof(T)) return false;
    if (!range_.contains(position, count * sizeof(T))) return false;
    const std::size_t old = values.size();
    if (!values.resize(old + count)) return false;
    if (count == 0 || copy(position, values.begin() + old, count * sizeof(T))) return true;
    static_cast<void>(values.resize(old));
    return false;
  }

 private:
  virtual bool copy(std::uint64_t position, void* to, std::size_t size) const = 0;

  AddressRange range_;
};

// The own process's memory.
class MemorySource final : public ByteSource {
 public:
  using ByteSource::ByteSource;

 private:
  bool copy(std::uint64_t position, void* to, std::size_t size) const override;
};

// The own process's memory while it is certain to stay and to be readable: copied without asking the kernel.
class HeldMemory final : public ByteSource {
 public:
  using ByteSource::ByteSource;

 private:
  bool copy(std::uint64_t position, void* to, std::size_t size) const override {
    std::memcpy(to, reinterpret_cast<const void*>(position), size);
    return true;
  }
};

// A regular file; an empty range when it cannot be opened.
class FileSource final : public ByteSource {
 public:
  explicit FileSource(const char* path) : FileSource(open(path)) {}
  ~FileSource() override;

 private:
  struct Opened {
    int descriptor;
    std::uint64_t size;
  };
  explicit FileSource(Opened file) : ByteSource({0, file.size}), descriptor_(file.descriptor) {}
  static Opened open(const char* path);
  bool copy(std::uint64_t position, void* to, std::size_t size) const override;

  int descriptor_;
};

// Bytes at hand.
class SpanSource final : public ByteSource {
 public:
  explicit SpanSource(std::span<const std::uint8_t> bytes) : ByteSource({0, bytes.size()}), bytes_(bytes) {}

 private:
  bool copy(std::uint64_t position, void* to, std::size_t size) const override {
    if (size != 0) std::memcpy(to, bytes_.data() + position, size);
    return true;
  }

  std::span<const std::uint8_t> bytes_;
};

}  // namespace qbv::linux_backend
