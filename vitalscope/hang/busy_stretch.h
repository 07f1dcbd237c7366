// Whether the main thread is at work on something, and since when.
#pragma once

#include <atomic>
#include <cstdint>

#include "vitalscope/platform/clock.h"

namespace qbv {

// Written by the main thread, read by any: no lock, no memory. Both parts of the begin are one value, so a
// reader never sees the seconds of one begin with the microseconds of another. Whoever finds it busy finds
// the begin of that stretch, or a later one.
class BusyStretch {
 public:
  constexpr BusyStretch() = default;

  bool busy() const noexcept { return busy_.load(std::memory_order_acquire); }
  void setBusy(bool busy) noexcept { busy_.store(busy, std::memory_order_release); }

  TimeValue begin() const noexcept {
    const std::int64_t packed = begin_.load(std::memory_order_relaxed);
    return {packed >> kBits, static_cast<std::int32_t>(packed & ((1 << kBits) - 1))};
  }
  void setBegin(TimeValue time) noexcept {
    begin_.store(time.tv_sec * (std::int64_t{1} << kBits) + time.tv_usec, std::memory_order_relaxed);
  }

 private:
  static constexpr int kBits = 20;  // for a million microseconds

  std::atomic<bool> busy_{false};
  std::atomic<std::int64_t> begin_{0};
};

}  // namespace qbv
