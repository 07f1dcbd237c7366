// Which place of the image list holds an address: a sorted table that is read without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>

namespace qbv::linux_backend {

struct ImageRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  std::uint64_t index = 0;
};

class ImageRanges {
 public:
  explicit ImageRanges(std::uint32_t capacity);

  // Replaces the table; sorts the given ranges, takes as many as fit. One thread at a time.
  void publish(std::span<ImageRange> ranges);

  // Nothing when no range holds the address, and while the table is being replaced. Any thread, lock-free.
  std::optional<std::uint32_t> find(std::uint64_t address) const;

 private:
  struct Slot {
    std::atomic<std::uint64_t> start, end, index;
  };

  Slot* slots_ = nullptr;
  std::uint32_t capacity_ = 0;
  std::atomic<std::uint32_t> size_{0};
  std::atomic<std::uint64_t> version_{0};  // odd while the table is being replaced
};

}  // namespace qbv::linux_backend
