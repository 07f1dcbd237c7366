// What waits on queues: blocks, timer firings, and serial queues that wait for a worker.
#pragma once

#include "vitalscope/platform/dispatch.h"

namespace qbv::linux_backend {

// One thing to run. It sits in at most one WorkList at a time.
class WorkItem {
 public:
  virtual ~WorkItem() = default;
  // Runs it, with no lock held. True: it wants to be run again and the caller still owns its place. False:
  // the caller touches it no more (it may be gone, or wait elsewhere already). What a block throws ends the
  // process here.
  virtual bool run() noexcept = 0;

 private:
  friend class WorkList;
  WorkItem* next_ = nullptr;
};

// First in, first out, chained through the items: takes no memory. Not synchronised.
class WorkList {
 public:
  bool empty() const noexcept { return head_ == nullptr; }
  void push(WorkItem& item) noexcept;
  // The oldest item; null when there is none.
  WorkItem* pop() noexcept;

 private:
  WorkItem* head_ = nullptr;
  WorkItem* tail_ = nullptr;
};

// A block on the heap that is run once and deletes itself before it runs.
class BlockItem final : public WorkItem {
 public:
  explicit BlockItem(Block block) noexcept : block_(std::move(block)) {}
  bool run() noexcept override;

 private:
  Block block_;
};

// A queue of this backend: every DispatchQueue that LinuxDispatch hands out is one.
class TargetQueue : public DispatchQueue {
 public:
  explicit TargetQueue(std::string label) : label_(std::move(label)) {}
  const std::string& label() const noexcept final { return label_; }
  // Puts the item at the end. Any thread; the caller keeps a reference to the queue meanwhile. Not in a
  // forked child.
  virtual void enqueue(WorkItem& item) = 0;

 private:
  const std::string label_;
};

}  // namespace qbv::linux_backend
