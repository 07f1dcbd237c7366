// What the run-loop monitor's two observers cost a pass of the main loop, beside the same pass without them.
// A pass here waits for nothing and does nothing; a real one also does the program's work. The monitor's
// thread looks once a second meanwhile.
#include <benchmark/benchmark.h>

#include <cstdio>

#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/platform/platform.h"

namespace {

using qbv::platform;

// A host's own loop, told whole: will wait, did wake.
void pass(benchmark::State& state) {
  qbv::RunLoop& loop = platform().runLoop;
  for (auto _ : state) {
    loop.willWait();
    loop.didWake();
  }
}

// Our own, with its system call and its locks.
void passOfOurs(benchmark::State& state) {
  qbv::RunLoop& loop = platform().runLoop;
  for (auto _ : state) loop.runOnce(0);
}

void event(benchmark::State& state) {
  qbv::RunLoop& loop = platform().runLoop;
  for (auto _ : state) loop.sendEvent([](void*) {}, nullptr);
}

// In this order: there is no way back from watching. A benchmark uses a whole core, which is a finding every
// second: not for this program's standard error.
void startWatching(const benchmark::State&) {
  static const bool started = [] {
    QBVitalscopeANRMonitor_RunLoop::sharedInstance()->start();
    return std::freopen("/dev/null", "w", stderr) != nullptr;
  }();
  benchmark::DoNotOptimize(started);
}

BENCHMARK(pass)->Name("pass/unwatched");
BENCHMARK(passOfOurs)->Name("passOfOurs/unwatched");
BENCHMARK(event)->Name("event/unwatched");
BENCHMARK(pass)->Name("pass/watched")->Setup(startWatching);
BENCHMARK(passOfOurs)->Name("passOfOurs/watched");
BENCHMARK(event)->Name("event/watched");

}  // namespace

BENCHMARK_MAIN();
