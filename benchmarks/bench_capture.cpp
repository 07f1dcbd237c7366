// What a capture of all threads as text costs, beside general tools that do the same from outside.
#include <benchmark/benchmark.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "tests/probes/live_threads.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace {

// With the frames of the wait and of the thread's start a stack is 30 deep.
constexpr int depth = 24;

using Seconds = std::chrono::duration<double>;

template <typename Work>
double secondsFor(Work work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return Seconds(std::chrono::steady_clock::now() - start).count();
}

void captureOnce() {
  std::string text = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
  benchmark::DoNotOptimize(text);
}

void allThreads(benchmark::State& state) {
  const qbv::StandingThreads threads(static_cast<int>(state.range(0)), depth);
  captureOnce();
  for (auto _ : state) captureOnce();
  const std::string text = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
  state.counters["bytes"] = static_cast<double>(text.size());
}

// "times_ours": how often a capture from inside fits into one run of the tool.
void fromOutside(benchmark::State& state, const std::string& command) {
  ::prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
  const qbv::StandingThreads threads(static_cast<int>(state.range(0)), depth);
  captureOnce();
  constexpr int captures = 50;
  const double ours = secondsFor([] {
                        for (int i = 0; i < captures; ++i) captureOnce();
                      }) /
                      captures;
  const std::string line =
      "DEBUGINFOD_URLS= " + command + std::to_string(::getpid()) + " </dev/null >/dev/null 2>&1";
  double total = 0;
  for (auto _ : state) {
    int status = 0;
    const double seconds = secondsFor([&] { status = std::system(line.c_str()); });
    if (status != 0) return state.SkipWithError("the tool is not installed or may not attach");
    state.SetIterationTime(seconds);
    total += seconds;
  }
  state.counters["times_ours"] = total / static_cast<double>(state.iterations()) / ours;
}

void euStack(benchmark::State& state) {
  fromOutside(state, "eu-stack -p ");
}
void debugger(benchmark::State& state) {
  fromOutside(state, "gdb -nx -q -batch -ex 'thread apply all bt' -p ");
}

BENCHMARK(allThreads)->Arg(1)->Arg(10)->Arg(50)->Arg(200)->Unit(benchmark::kMicrosecond);
BENCHMARK(euStack)->Arg(10)->Arg(50)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(debugger)->Arg(10)->Arg(50)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  QBVitalscopeBacktrace::load();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
