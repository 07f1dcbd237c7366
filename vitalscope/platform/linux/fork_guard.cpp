#include "vitalscope/platform/linux/fork_guard.h"

#include <pthread.h>

namespace qbv::linux_backend {

namespace detail {
constinit std::atomic<bool> forkedChild{false};
}

namespace {

void becomeInert() {
  detail::forkedChild.store(true, std::memory_order_relaxed);
}

}  // namespace

void watchForks() {
  [[maybe_unused]] static const int registered = pthread_atfork(nullptr, nullptr, becomeInert);
}

}  // namespace qbv::linux_backend
