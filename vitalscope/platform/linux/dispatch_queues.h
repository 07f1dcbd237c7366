// Serial and concurrent queues.
#pragma once

#include <memory>
#include <mutex>

#include "vitalscope/platform/linux/dispatch_work.h"
#include "vitalscope/platform/linux/dispatch_workers.h"

namespace qbv::linux_backend {

// Blocks go straight to the workers.
class ConcurrentQueue final : public TargetQueue {
 public:
  ConcurrentQueue(std::string label, WorkerPool& pool) : TargetQueue(std::move(label)), pool_(pool) {}
  void enqueue(WorkItem& item) override { pool_.push(item); }

 private:
  WorkerPool& pool_;
};

// While it has blocks it waits for a worker like a block of its own and keeps itself alive; each turn runs
// one block, so that a long queue does not keep others from a worker.
class SerialQueue final : public TargetQueue,
                          private WorkItem,
                          public std::enable_shared_from_this<SerialQueue> {
 public:
  SerialQueue(std::string label, WorkerPool& pool) : TargetQueue(std::move(label)), pool_(pool) {}
  void enqueue(WorkItem& item) override;

 private:
  bool run() noexcept override;

  WorkerPool& pool_;
  std::mutex mutex_;
  WorkList waiting_;
  std::shared_ptr<SerialQueue> self_;  // set while a worker has the queue or it waits for one
};

}  // namespace qbv::linux_backend
