// Threads to capture, each known to be where it is, and captures as a monitor makes them.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "tests/platform/test_threads.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/blocked_thread.h"

namespace qbv::test {

using linux_backend::task;
using SteadyClock = std::chrono::steady_clock;

inline void waitUntilBlocked(ThreadPort thread) {
  using linux_backend::SystemCallLine;
  linux_backend::BlockedThread watched(thread);
  while (watched.look().state != SystemCallLine::State::blocked) std::this_thread::yield();
}

inline std::vector<std::uint64_t> stackOf(ThreadPort thread) {
  ThreadState state;
  if (task().thread_get_state(thread, &state) != KERN_SUCCESS) return {};
  EXPECT_NE(state.fp, 0u);
  EXPECT_EQ(state.lr, 0u);
  EXPECT_EQ(task().thread_suspend(thread), KERN_SUCCESS);
  auto addresses = walk(task(), state);
  EXPECT_EQ(task().thread_resume(thread), KERN_SUCCESS);
  return addresses;
}

// A busy machine may keep a running thread from answering in time; it gets more chances.
inline std::vector<std::uint64_t> stackOfPatiently(ThreadPort thread) {
  std::vector<std::uint64_t> stack;
  for (int attempt = 0; stack.empty() && attempt < 20; ++attempt) stack = stackOf(thread);
  return stack;
}

inline bool holds(const std::vector<std::uint64_t>& stack, const KnownChain& chain) {
  const auto& expected = chain.returnAddresses;
  return std::search(stack.begin(), stack.end(), expected.begin(), expected.end()) != stack.end();
}

// A thread that is three known calls deep and in action there.
class ChainThread {
 public:
  explicit ChainThread(std::function<void(const std::atomic<bool>& stop)> action)
      : thread_([this, action = std::move(action)](const std::atomic<bool>& stop) {
          chain_.action = [&] {
            inside_.count_down();
            action(stop);
          };
          knownOuter(chain_);
        }) {
    inside_.wait();
  }
  ThreadPort port() const { return thread_.port(); }
  void stop() { thread_.stop(); }
  const KnownChain& chain() const { return chain_; }

 private:
  KnownChain chain_;
  std::latch inside_{1};
  TestThread thread_;
};

inline void blockAllSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

// A condition to wait for, and who waits.
struct Gate {
  std::mutex mutex;
  std::condition_variable condition;
  bool open = false;

  void wait() {
    std::unique_lock lock(mutex);
    condition.wait(lock, [&] { return open; });
  }
  void release() {
    const std::lock_guard lock(mutex);
    open = true;
    condition.notify_all();
  }
};

}  // namespace qbv::test
