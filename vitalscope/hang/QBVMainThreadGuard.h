// A question put to the main thread.
#pragma once

#include <atomic>

// Any thread. The main thread answers once; the monitor looks without waiting.
class QBVMainThreadGuard {
 public:
  bool isDetect() const noexcept { return isDetect_.load(std::memory_order_relaxed); }
  void responseDetect() noexcept { isDetect_.store(true, std::memory_order_relaxed); }

 private:
  std::atomic<bool> isDetect_{false};
};
