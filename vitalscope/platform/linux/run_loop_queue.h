// The queue whose blocks run on the main thread.
#pragma once

#include <cstdint>
#include <mutex>

#include "vitalscope/platform/linux/dispatch_work.h"

namespace qbv::linux_backend {

// The descriptor is readable exactly while blocks wait that no drain has begun to run, so a loop that is
// nested in a block goes on with the rest. Its first use begins the look for a main loop. Never destroyed.
class MainQueue final : public TargetQueue {
 public:
  static MainQueue& shared();

  // One write(2) when the queue was empty, otherwise a short lock only.
  void enqueue(WorkItem& item) override;

  // See RunLoop. The descriptor is made on the first call that needs it. In a forked child its number leads
  // to an object of the child's own that never becomes readable, and drain() does nothing.
  int descriptor();
  bool drain();
  // Whether blocks wait that no drain has begun to run. Any thread but in a forked child.
  bool hasWork();
  // For a loop that found the descriptor closed, as a program does that closes all it does not know: makes
  // another with the same number. False when that number is taken by now.
  bool replaceDescriptor();

 private:
  MainQueue();
  void makeDescriptor();
  void setReadable(bool readable) noexcept;
  WorkItem* take(std::uint64_t upTo);

  std::mutex mutex_;
  WorkList waiting_;
  std::uint64_t posted_ = 0;  // items ever put on the queue
  std::uint64_t taken_ = 0;   // and taken from it
};

}  // namespace qbv::linux_backend
