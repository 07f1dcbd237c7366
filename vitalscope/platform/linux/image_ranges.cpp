#include "vitalscope/platform/linux/image_ranges.h"

#include <algorithm>
#include <new>

#include "vitalscope/platform/linux/pages.h"

namespace qbv::linux_backend {

ImageRanges::ImageRanges(std::uint32_t capacity)
    : slots_(static_cast<Slot*>(takePages(capacity * sizeof(Slot)))),
      capacity_(slots_ != nullptr ? capacity : 0) {}

void ImageRanges::publish(std::span<ImageRange> ranges) {
  std::sort(ranges.begin(), ranges.end(),
            [](const ImageRange& a, const ImageRange& b) { return a.start < b.start; });
  const auto size = static_cast<std::uint32_t>(std::min<std::size_t>(ranges.size(), capacity_));
  const std::uint64_t version = version_.load(std::memory_order_relaxed);
  version_.store(version + 1, std::memory_order_relaxed);
  for (std::uint32_t i = 0; i < size; ++i) {
    slots_[i].start.store(ranges[i].start, std::memory_order_release);
    slots_[i].end.store(ranges[i].end, std::memory_order_release);
    slots_[i].index.store(ranges[i].index, std::memory_order_release);
  }
  size_.store(size, std::memory_order_release);
  version_.store(version + 2, std::memory_order_release);
}

std::optional<std::uint32_t> ImageRanges::find(std::uint64_t address) const {
  const std::uint64_t version = version_.load(std::memory_order_acquire);
  std::uint32_t low = 0;
  std::uint32_t high = size_.load(std::memory_order_acquire);
  while (low < high) {
    const std::uint32_t middle = low + (high - low) / 2;
    if (slots_[middle].start.load(std::memory_order_acquire) <= address) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low == 0) return std::nullopt;
  const Slot& slot = slots_[low - 1];
  const std::uint64_t end = slot.end.load(std::memory_order_acquire);
  const auto index = static_cast<std::uint32_t>(slot.index.load(std::memory_order_acquire));
  const bool steady = version % 2 == 0 && version_.load(std::memory_order_relaxed) == version;
  if (!steady || address >= end) return std::nullopt;
  return index;
}

}  // namespace qbv::linux_backend
