// What captures cost the captured: how long a running thread stands still for one, and what they keep.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include "vitalscope/platform/platform.h"

namespace {

std::uint64_t now() {
  return qbv::platform().clock.monotonicNanoseconds();
}

// What a thread has worked: the handler works on its thread, while time without a processor does not count.
std::uint64_t worked() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

// Reads its clock all the time, and keeps the longest time between two readings since it was last asked.
class Runner {
 public:
  Runner() : thread_([this] { run(); }) {
    while (port_ == 0) std::this_thread::yield();
  }
  ~Runner() {
    stop_ = true;
    thread_.join();
  }
  qbv::ThreadPort port() const { return port_; }

  // Waits for the runner's next reading, so that a pause that has just ended counts.
  std::uint64_t longestPause() {
    const std::uint64_t asked = ++asked_;
    while (answered_ != asked) std::this_thread::yield();
    return answer_;
  }

 private:
  void run() {
    port_ = qbv::platform().task.mach_thread_self();
    std::uint64_t longest = 0, last = worked();
    while (!stop_) {
      const std::uint64_t time = worked();
      longest = std::max(longest, time - last);
      last = time;
      if (const std::uint64_t asked = asked_; asked != answered_) {
        answer_ = longest;
        longest = 0;
        answered_ = asked;
      }
    }
  }

  std::atomic<bool> stop_{false};
  std::atomic<qbv::ThreadPort> port_{0};
  std::atomic<std::uint64_t> asked_{0}, answered_{0}, answer_{0};
  std::thread thread_;
};

void addPercentiles(benchmark::State& state, std::vector<double> pauses) {
  std::sort(pauses.begin(), pauses.end());
  const auto at = [&](double part) {
    return pauses[static_cast<std::size_t>(part * static_cast<double>(pauses.size() - 1))];
  };
  state.counters["p50_us"] = at(0.5) / 1000;
  state.counters["p99_us"] = at(0.99) / 1000;
}

// The longest pause of a running thread around each capture of it, or in as long a time without one.
void pauseOfARunningThread(benchmark::State& state, bool captured) {
  Runner runner;
  qbv::ThreadState registers;
  std::vector<double> pauses;
  std::uint64_t took = 0;
  for (auto _ : state) {
    runner.longestPause();
    const std::uint64_t begin = now();
    if (captured && qbv::platform().task.thread_get_state(runner.port(), &registers) != qbv::KERN_SUCCESS)
      return state.SkipWithError("the thread was not captured");
    while (!captured && now() - begin < 6'000'000) std::this_thread::yield();
    took += now() - begin;
    pauses.push_back(static_cast<double>(runner.longestPause()));
  }
  state.counters["capture_us"] = static_cast<double>(took) / static_cast<double>(state.iterations()) / 1000;
  addPercentiles(state, std::move(pauses));
}

void capturedRunner(benchmark::State& state) {
  pauseOfARunningThread(state, true);
}
void undisturbedRunner(benchmark::State& state) {
  pauseOfARunningThread(state, false);
}

double footprintKiB() {
  qbv::TaskVmInfo info;
  qbv::platform().task.task_info(&info);
  return static_cast<double>(info.phys_footprint) / 1024;
}

// What is kept after the first captures of 50 running and waiting threads, and after many more.
void keptMemory(benchmark::State& state) {
  std::vector<std::unique_ptr<Runner>> runners;
  for (int i = 0; i < 2; ++i) runners.push_back(std::make_unique<Runner>());
  std::atomic<bool> stop{false};
  std::vector<std::thread> waiting;
  for (int i = 0; i < 48; ++i) waiting.emplace_back([&] { stop.wait(false); });
  const auto captureAll = [] {
    qbv::Task& task = qbv::platform().task;
    qbv::ThreadPort* threads = nullptr;
    std::uint32_t count = 0;
    task.task_threads(&threads, &count);
    task.willCaptureThreads(threads, count);
    task.didCaptureThreads();
    task.vm_deallocate(threads, count * sizeof *threads);
  };
  const double before = footprintKiB();
  captureAll();
  const double first = footprintKiB();
  for (auto _ : state) captureAll();
  state.counters["first_KiB"] = first - before;
  state.counters["later_KiB"] = footprintKiB() - first;
  stop = true;
  stop.notify_all();
  for (std::thread& thread : waiting) thread.join();
}

BENCHMARK(capturedRunner)->Iterations(300)->Unit(benchmark::kMicrosecond);
BENCHMARK(undisturbedRunner)->Iterations(300)->Unit(benchmark::kMicrosecond);
BENCHMARK(keptMemory)->Iterations(100)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
