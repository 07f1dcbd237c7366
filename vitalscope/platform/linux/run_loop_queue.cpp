#include "vitalscope/platform/linux/run_loop_queue.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>

#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/library_watch.h"

namespace qbv::linux_backend {

namespace {

constinit std::atomic<int> mainDescriptor{-1};

// A child shares the parent's object until it has one of its own: reading would take the parent's wake-up,
// and a loop that polls it would spin.
void takeOverDescriptorInChild() {
  const int shared = mainDescriptor.load(std::memory_order_relaxed);
  if (shared < 0) return;
  const int own = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (own < 0) return;
  dup3(own, shared, O_CLOEXEC);
  close(own);
}

}  // namespace

MainQueue::MainQueue() : TargetQueue("main") {
  watchForks();
  pthread_atfork(nullptr, nullptr, takeOverDescriptorInChild);
}

MainQueue& MainQueue::shared() {
  static MainQueue* const instance = new MainQueue;
  return *instance;
}

void MainQueue::makeDescriptor() {
  if (mainDescriptor.load(std::memory_order_relaxed) >= 0) return;
  const int made = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (made < 0) return;
  mainDescriptor.store(outOfTheWay(Descriptor(made)).release(), std::memory_order_relaxed);
  if (!waiting_.empty()) setReadable(true);
}

void MainQueue::setReadable(bool readable) noexcept {
  const int wake = mainDescriptor.load(std::memory_order_relaxed);
  std::uint64_t count = 1;
  // Neither can block or come short; without a descriptor they fail and the loop looks for itself.
  if (readable) {
    [[maybe_unused]] const ssize_t done = write(wake, &count, sizeof count);
  } else {
    [[maybe_unused]] const ssize_t done = read(wake, &count, sizeof count);
  }
}

bool MainQueue::replaceDescriptor() {
  const std::lock_guard lock(mutex_);
  const int number = mainDescriptor.load(std::memory_order_relaxed);
  const Descriptor made(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  Descriptor placed(made ? fcntl(made.get(), F_DUPFD_CLOEXEC, number) : -1);
  if (placed.get() != number) return false;
  placed.release();
  if (!waiting_.empty()) setReadable(true);
  return true;
}

int MainQueue::descriptor() {
  if (!isForkedChild()) {
    {
      const std::lock_guard lock(mutex_);
      makeDescriptor();
    }
    watchForMainLoop();
  }
  return mainDescriptor.load(std::memory_order_relaxed);
}

void MainQueue::enqueue(WorkItem& item) {
  {
    const std::lock_guard lock(mutex_);
    makeDescriptor();
    const bool first = waiting_.empty();
    waiting_.push(item);
    ++posted_;
    if (first) setReadable(true);
  }
  watchForMainLoop();
}

bool MainQueue::drain() {
  if (isForkedChild()) return false;
  std::uint64_t upTo = 0;
  {
    const std::lock_guard lock(mutex_);
    upTo = posted_;
  }
  bool ran = false;
  while (WorkItem* const item = take(upTo)) {
    item->run();
    ran = true;
  }
  return ran;
}

bool MainQueue::hasWork() {
  const std::lock_guard lock(mutex_);
  return !waiting_.empty();
}

WorkItem* MainQueue::take(std::uint64_t upTo) {
  if (isForkedChild()) return nullptr;
  const std::lock_guard lock(mutex_);
  if (taken_ >= upTo) return nullptr;
  ++taken_;
  WorkItem* const item = waiting_.pop();
  if (waiting_.empty()) setReadable(false);
  return item;
}

}  // namespace qbv::linux_backend
