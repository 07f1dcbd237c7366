#include "vitalscope/platform/linux/loader_list.h"

#include <pthread.h>

#include <atomic>
#include <ctime>

namespace qbv::linux_backend {

namespace {

constexpr int kMostNaps = 4000;
constexpr long kNap = 50'000;  // ns

constinit std::atomic<int> gForks{0};
constinit std::atomic<int> gVisits{0};

// False when it has lasted too long: whoever is waited for may be waiting for this thread.
bool waitUntilZero(const std::atomic<int>& count) {
  for (int naps = 0; count.load() != 0; ++naps) {
    if (naps == kMostNaps) return false;
    const timespec time{0, kNap};
    clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);
  }
  return true;
}

void beforeFork() {
  gForks.fetch_add(1);
  waitUntilZero(gVisits);
}

void afterForkInParent() {
  gForks.fetch_sub(1);
}

void afterForkInChild() {
  gForks.store(0);
  gVisits.store(0);
}

// Each side announces itself before it looks at the other, so that not both can overlook the other.
void enter() {
  gVisits.fetch_add(1);
  while (gForks.load() != 0) {
    gVisits.fetch_sub(1);
    const bool over = waitUntilZero(gForks);
    gVisits.fetch_add(1);
    if (!over) return;
  }
}

}  // namespace

int visitLoadedImages(int (*visit)(dl_phdr_info*, std::size_t, void*), void* data) {
  [[maybe_unused]] static const int registered =
      pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
  enter();
  const int answer = dl_iterate_phdr(visit, data);
  gVisits.fetch_sub(1);
  return answer;
}

// The thread sanitizer does not see the loader's lock. It forgets who wrote the name before each visit, but
// not who wrote the zero behind it: that one is read out of its sight.
__attribute__((no_sanitize("thread"))) std::string_view loaderName(const dl_phdr_info& info) {
  const volatile char* const name = info.dlpi_name;
  if (name == nullptr) return {};
  std::size_t size = 0;
  while (name[size] != '\0') ++size;
  return {info.dlpi_name, size};
}

LoaderCounters loaderCounters() {
  LoaderCounters now;
  visitLoadedImages(
      [](dl_phdr_info* info, std::size_t, void* counters) {
        *static_cast<LoaderCounters*>(counters) = {info->dlpi_adds, info->dlpi_subs};
        return 1;
      },
      &now);
  return now;
}

}  // namespace qbv::linux_backend
