// The threads that run blocks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "vitalscope/platform/linux/dispatch_work.h"

namespace qbv::linux_backend {

// Workers are made when work waits and none is free, one at a time: each one that takes work sees to it that
// another comes when more waits. So handlers that block bring up to `maxWorkers` threads, while a burst of
// short blocks is run by the few that are there. The worker that went idle last is woken first; one that has
// been idle for `idleTime` ends. With all workers blocked, work waits until one of them comes back.
// Once exit() has been called in the process no further work begins; nobody is waited for.
// Never destroyed: its threads use it until the process is gone.
class WorkerPool {
 public:
  WorkerPool(unsigned maxWorkers, std::chrono::nanoseconds idleTime);
  ~WorkerPool() = delete;

  // The pool of all queues: 64 workers, 5 seconds.
  static WorkerPool& shared();

  // Any thread; not in a forked child. The item stays the pool's until it has run.
  void push(WorkItem& item);
  // Threads that exist or are being made. Any thread.
  unsigned workers();

 private:
  struct Worker {
    std::condition_variable wake;
    bool woken = false;
    Worker* below = nullptr;
  };

  static void workerMain(void* pool);
  void work();
  WorkItem* next(Worker& self, WorkItem* again);
  bool waitIdle(Worker& self, std::unique_lock<std::mutex>& lock);
  void leaveIdle(Worker& self) noexcept;
  bool callWorker();
  void makeWorker();

  const unsigned maxWorkers_;
  const std::chrono::nanoseconds idleTime_;
  std::mutex mutex_;
  WorkList ready_;
  Worker* idle_ = nullptr;  // a stack: the one on top went idle last
  unsigned workers_ = 0;
  unsigned arriving_ = 0;  // woken or started, but not yet at the list
};

}  // namespace qbv::linux_backend
