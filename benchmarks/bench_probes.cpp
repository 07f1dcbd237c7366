// What one look at CPU use, footprint, drives and battery costs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>

#include "tests/probes/live_threads.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/probes/QBVBatteryMonitor.h"
#include "vitalscope/probes/QBVIOMonitor.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"

namespace {

void cpuUsageForApp(benchmark::State& state) {
  const qbv::StandingThreads threads(static_cast<int>(state.range(0)), 1);
  for (auto _ : state) benchmark::DoNotOptimize(QBVitalscopeCPU::cpuUsageForApp());
}

void memoryUsageInProgress(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(QBVitalscopeMemoryMonitor::memoryUsageInProgress());
}

void drives(benchmark::State& state) {
  QBVIOMonitor* const monitor = QBVIOMonitor::sharedInstance();
  monitor->start();  // its own samples come once a second
  for (auto _ : state) monitor->fetchIOInfo();
  monitor->stop();
}

void battery(benchmark::State& state) {
  for (auto _ : state) QBVBatteryMonitor::sharedInstance()->handleBatteryMonitor();
}

// The kernel's own pages on the same subject: opened, read and closed, as a program without a probe would.
void readPage(benchmark::State& state, const char* path) {
  std::array<char, 4096> page;
  for (auto _ : state) {
    const int file = ::open(path, O_RDONLY | O_CLOEXEC);
    if (::read(file, page.data(), page.size()) <= 0) state.SkipWithError("not readable");
    ::close(file);
  }
}

void statm(benchmark::State& state) {
  readPage(state, "/proc/self/statm");
}
void smapsRollup(benchmark::State& state) {
  readPage(state, "/proc/self/smaps_rollup");
}

void diskstats(benchmark::State& state) {
  readPage(state, "/proc/diskstats");
}

BENCHMARK(cpuUsageForApp)->Arg(10)->Arg(100)->Arg(500)->Unit(benchmark::kMicrosecond);
BENCHMARK(memoryUsageInProgress);
BENCHMARK(statm);
BENCHMARK(smapsRollup);
BENCHMARK(drives)->Unit(benchmark::kMicrosecond);
BENCHMARK(diskstats)->Unit(benchmark::kMicrosecond);
BENCHMARK(battery)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
