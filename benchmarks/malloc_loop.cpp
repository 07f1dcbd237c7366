// Allocates and frees on some threads at once and prints the nanoseconds of CPU time that one pair took, so
// that other programs on the machine hardly matter; waiting for a lock asleep is not in it.
//   malloc_loop THREADS fixed|mixed [counting]
// "counting" (only in the build that is linked with the monitor) starts the allocation monitor first.
#include <algorithm>
#include <array>
#include <barrier>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <thread>
#include <vector>

#if defined(MALLOC_LOOP_MONITORED)
#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#endif

namespace {

double threadNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

void* (*volatile allocate)(std::size_t) = std::malloc;
void (*volatile release)(void*) = std::free;

constexpr int kPairs = 1 << 18;
constexpr int kRepeats = 9;
constexpr std::chrono::seconds kPatience{5};  // with tools that take microseconds

void fixedPairs() {
  for (int i = 0; i < kPairs; ++i) release(allocate(64));
}

// 64 blocks alive, 16 bytes to 8 KB, small ones more often.
void mixedPairs() {
  std::array<void*, 64> alive{};
  std::uint32_t random = 12345;
  for (int i = 0; i < kPairs; ++i) {
    random = random * 1664525 + 1013904223;
    void*& block = alive[(random >> 8) % alive.size()];
    release(block);
    block = allocate(std::size_t{16} << ((random >> 16) % 10 * ((random >> 24) % 10) / 9));
  }
  for (void* const block : alive) release(block);
}

double pairOnThreads(int threads, void (*pairs)()) {
  std::barrier begin(threads);
  std::vector<std::thread> running;
  std::vector<double> each(static_cast<std::size_t>(threads));
  for (int number = 0; number < threads; ++number)
    running.emplace_back([&, number] {
      begin.arrive_and_wait();
      const double start = threadNanoseconds();
      pairs();
      each[static_cast<std::size_t>(number)] = threadNanoseconds() - start;
    });
  for (std::thread& thread : running) thread.join();
  return *std::max_element(each.begin(), each.end()) / kPairs;
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 2;
  const int threads = std::atoi(arguments[1]);
  const bool fixed = std::string_view(arguments[2]) == "fixed";
#if defined(MALLOC_LOOP_MONITORED)
  if (count > 3) QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
#endif
  double best = 1e9;
  const auto end = std::chrono::steady_clock::now() + kPatience;
  for (int i = 0; i < kRepeats && (i == 0 || std::chrono::steady_clock::now() < end); ++i)
    best = std::min(best, pairOnThreads(threads, fixed ? fixedPairs : mixedPairs));
  std::printf("%.3f\n", best);
  return 0;
}
