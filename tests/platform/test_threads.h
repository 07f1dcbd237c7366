// Threads for tests: each tells its number, and is asked to end.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <latch>
#include <thread>
#include <utility>
#include <vector>

#include "vitalscope/platform/task.h"

namespace qbv::test {

// Sanitizers start threads of their own, use memory for every byte that is touched, and slow everything down.
#if defined(QBV_SANITIZED)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

// Runs body(stop) on a thread of its own; the destructor raises stop and joins.
class TestThread {
 public:
  using Body = std::function<void(const std::atomic<bool>& stop)>;

  explicit TestThread(Body body) : body_(std::move(body)), thread_([this] { run(); }) { started_.wait(); }
  ~TestThread() {
    stop();
    thread_.join();
  }
  TestThread(const TestThread&) = delete;
  TestThread& operator=(const TestThread&) = delete;

  ThreadPort port() const { return port_; }
  void stop() { stop_ = true; }

 private:
  void run() {
    port_ = static_cast<ThreadPort>(syscall(SYS_gettid));
    started_.count_down();
    body_(stop_);
  }

  Body body_;
  std::atomic<bool> stop_{false};
  std::latch started_{1};
  ThreadPort port_ = 0;
  std::thread thread_;
};

inline void spin(const std::atomic<bool>& stop) {
  while (!stop.load(std::memory_order_relaxed)) {
  }
}

// The addresses of a thread's frame records, read as any capture reads them: program counter first.
inline std::vector<std::uint64_t> walk(Task& task, const ThreadState& state) {
  std::vector<std::uint64_t> addresses{state.pc};
  std::uint64_t frame = state.fp;
  while (addresses.size() < 200) {
    std::uint64_t record[2] = {};
    if (task.vm_read_overwrite(frame, sizeof record, record, nullptr) != KERN_SUCCESS) break;
    if (record[0] == 0 || record[1] == 0) break;
    addresses.push_back(record[1]);
    frame = record[0];
  }
  return addresses;
}

// Three calls deep, each noting where it will return to, innermost first; then action runs.
struct KnownChain {
  std::array<std::uint64_t, 3> returnAddresses{};
  std::function<void()> action;
};

inline std::uint64_t returnAddress(void* address) {
  return reinterpret_cast<std::uint64_t>(address);
}

[[gnu::noinline]] inline int knownInner(KnownChain& chain) {
  chain.returnAddresses[0] = returnAddress(__builtin_return_address(0));
  chain.action();
  asm volatile("" ::: "memory");
  return 1;
}
[[gnu::noinline]] inline int knownMiddle(KnownChain& chain) {
  chain.returnAddresses[1] = returnAddress(__builtin_return_address(0));
  const int depth = knownInner(chain);
  asm volatile("" ::: "memory");
  return depth + 1;
}
[[gnu::noinline]] inline int knownOuter(KnownChain& chain) {
  chain.returnAddresses[2] = returnAddress(__builtin_return_address(0));
  const int depth = knownMiddle(chain);
  asm volatile("" ::: "memory");
  return depth + 1;
}

}  // namespace qbv::test
