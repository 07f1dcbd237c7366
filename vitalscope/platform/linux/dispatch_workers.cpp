#include "vitalscope/platform/linux/dispatch_workers.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>

#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {

namespace {

constinit std::atomic<bool> exiting{false};

void noteExit() {
  exiting.store(true, std::memory_order_relaxed);
}

// What the host owns is being destroyed around us; the process ends without asking this thread.
[[noreturn]] void parkForever() {
  for (;;) pause();
}

}  // namespace

WorkerPool::WorkerPool(unsigned maxWorkers, std::chrono::nanoseconds idleTime)
    : maxWorkers_(maxWorkers), idleTime_(idleTime) {
  watchForks();
  [[maybe_unused]] static const int registered = std::atexit(noteExit);
}

WorkerPool& WorkerPool::shared() {
  static WorkerPool* const instance = new WorkerPool(64, std::chrono::seconds(5));
  return *instance;
}

void WorkerPool::push(WorkItem& item) {
  bool make = false;
  {
    const std::lock_guard lock(mutex_);
    ready_.push(item);
    make = callWorker();
  }
  if (make) makeWorker();
}

unsigned WorkerPool::workers() {
  const std::lock_guard lock(mutex_);
  return workers_;
}

// With the lock held: wakes an idle worker for waiting work, or answers that the caller shall make one once
// the lock is free.
bool WorkerPool::callWorker() {
  if (ready_.empty() || arriving_ != 0) return false;
  if (idle_ != nullptr) {
    Worker& worker = *idle_;
    idle_ = worker.below;
    worker.woken = true;
    ++arriving_;
    worker.wake.notify_one();
    return false;
  }
  if (workers_ == maxWorkers_) return false;
  ++workers_;
  ++arriving_;
  return true;
}

void WorkerPool::makeWorker() {
  if (startThread("quib worker", kHandlerStackBytes, workerMain, this)) return;
  // The work stays in the list: a worker that comes back or the next push takes care of it.
  const std::lock_guard lock(mutex_);
  --workers_;
  --arriving_;
}

void WorkerPool::workerMain(void* pool) {
  static_cast<WorkerPool*>(pool)->work();
}

void WorkerPool::work() {
  Worker self;
  {
    const std::lock_guard lock(mutex_);
    --arriving_;
  }
  WorkItem* again = nullptr;
  while (WorkItem* const item = next(self, again)) {
    again = item->run() ? item : nullptr;
    // A block forked and the child came back from it: this is the child's only thread.
    if (isForkedChild()) _exit(EXIT_SUCCESS);
  }
}

// The next item, waiting for it; null when the worker has been idle for long and shall end. `again` goes to
// the end of the list first.
WorkItem* WorkerPool::next(Worker& self, WorkItem* again) {
  std::unique_lock lock(mutex_);
  if (again != nullptr) ready_.push(*again);
  while (ready_.empty()) {
    if (!waitIdle(self, lock)) {
      --workers_;
      return nullptr;
    }
  }
  WorkItem* const item = ready_.pop();
  const bool make = callWorker();
  lock.unlock();
  if (exiting.load(std::memory_order_relaxed)) parkForever();
  if (make) makeWorker();
  return item;
}

bool WorkerPool::waitIdle(Worker& self, std::unique_lock<std::mutex>& lock) {
  self.woken = false;
  self.below = idle_;
  idle_ = &self;
  const auto deadline = std::chrono::steady_clock::now() + idleTime_;
  if (self.wake.wait_until(lock, deadline, [&self] { return self.woken; })) {
    --arriving_;
    return true;
  }
  leaveIdle(self);
  return false;
}

void WorkerPool::leaveIdle(Worker& self) noexcept {
  Worker** link = &idle_;
  while (*link != &self) link = &(*link)->below;
  *link = self.below;
}

}  // namespace qbv::linux_backend
