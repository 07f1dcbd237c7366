// Pieces of work that run one after the other, without anybody waiting for anybody.
#pragma once

#include <deque>
#include <functional>
#include <mutex>

namespace qbv {

// For work that calls foreign code and must not overlap: a mutex held meanwhile would block, and dead-lock
// when that code comes back with more work or waits for a thread that has some.
class SerialWork {
 public:
  // Runs the work here and now. While another piece runs, on this thread or another one, the work is left to
  // that thread instead, which does it next, and this returns at once. Pieces run in the order in which they
  // came. No lock is held while one runs; none may throw. Any thread.
  void run(std::function<void()> work);

 private:
  std::mutex lock_;
  std::deque<std::function<void()>> waiting_;
  bool runs_ = false;
};

}  // namespace qbv
