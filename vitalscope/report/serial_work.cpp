#include "vitalscope/report/serial_work.h"

#include <utility>

namespace qbv {

void SerialWork::run(std::function<void()> work) {
  std::unique_lock hold(lock_);
  waiting_.push_back(std::move(work));
  if (runs_) return;
  runs_ = true;
  while (!waiting_.empty()) {
    std::function<void()> next = std::move(waiting_.front());
    waiting_.pop_front();
    hold.unlock();
    next();
    next = nullptr;
    hold.lock();
  }
  runs_ = false;
}

}  // namespace qbv
