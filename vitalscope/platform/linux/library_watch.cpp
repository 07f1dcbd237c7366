#include "vitalscope/platform/linux/library_watch.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/glib_loop.h"
#include "vitalscope/platform/linux/images.h"
#include "vitalscope/platform/linux/loader_list.h"

namespace qbv::linux_backend {

namespace {

constinit std::atomic<bool> watching{false};
constinit std::atomic<bool> attached{false};
constinit std::atomic_flag looking;
constinit std::atomic_flag queued;
constinit std::atomic<std::uint64_t> addsSeen{0};

// Nobody waits for a look under way: it may be waiting for a constructor that this thread runs.
void lookForMainLoop() {
  if (attached.load(std::memory_order_acquire) || isForkedChild()) return;
  if (looking.test_and_set(std::memory_order_acquire)) return;
  const int error = errno;
  const std::uint64_t adds = loaderCounters().adds;
  if (addsSeen.exchange(adds, std::memory_order_relaxed) != adds && attachToGlib())
    attached.store(true, std::memory_order_release);
  errno = error;
  looking.clear(std::memory_order_release);
}

}  // namespace

void watchForMainLoop() {
  if (watching.load(std::memory_order_relaxed) || watching.exchange(true)) return;
  lookForMainLoop();
}

void lookForMainLoopSoon() {
  if (attached.load(std::memory_order_acquire) || !watching.load(std::memory_order_relaxed)) return;
  if (isForkedChild() || loaderCounters().adds == addsSeen.load(std::memory_order_relaxed)) return;
  if (queued.test_and_set()) return;
  dispatch().dispatch_async(dispatch().dispatch_get_global_queue(), [] {
    queued.clear();
    lookForMainLoop();
  });
}

}  // namespace qbv::linux_backend

// For the stub in dlopen.S: the address of the C library's dlopen. Resolved at the first call.
extern "C" void* qbv_before_dlopen() noexcept {
  static constinit std::atomic<void*> next{nullptr};
  void* real = next.load(std::memory_order_acquire);
  if (real == nullptr) {
    real = dlsym(RTLD_NEXT, "dlopen");
    next.store(real, std::memory_order_release);
  }
  qbv::linux_backend::expectImageArrivals();
  if (qbv::linux_backend::watching.load(std::memory_order_relaxed)) qbv::linux_backend::lookForMainLoop();
  return real;
}
