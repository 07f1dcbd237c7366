// What loading the libraries adds to a host's start: the same program, linked without and with them.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Nanoseconds = std::chrono::nanoseconds;

// From spawn to the end of the process; negative when it could not be run.
Nanoseconds runOnce(const std::string& program) {
  std::string path = program;
  char* const arguments[] = {path.data(), nullptr};
  const auto begin = std::chrono::steady_clock::now();
  pid_t child = 0;
  int status = 0;
  if (posix_spawn(&child, path.c_str(), nullptr, nullptr, arguments, environ) != 0 ||
      waitpid(child, &status, 0) != child || status != 0)
    return Nanoseconds(-1);
  return std::chrono::steady_clock::now() - begin;
}

Nanoseconds median(std::vector<Nanoseconds> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Alternates the two programs, so that both see the same machine; the time reported is the monitored host's.
void startOfHost(benchmark::State& state) {
  std::vector<Nanoseconds> plain;
  std::vector<Nanoseconds> monitored;
  for (auto _ : state) {
    const Nanoseconds without = runOnce(QBV_STARTUP_PLAIN);
    const Nanoseconds with = runOnce(QBV_STARTUP_MONITORED);
    if (without.count() < 0 || with.count() < 0) {
      state.SkipWithError("a host could not be run");
      return;
    }
    plain.push_back(without);
    monitored.push_back(with);
    state.SetIterationTime(std::chrono::duration<double>(with).count());
  }
  const double plainMilliseconds = std::chrono::duration<double, std::milli>(median(plain)).count();
  const double monitoredMilliseconds = std::chrono::duration<double, std::milli>(median(monitored)).count();
  state.counters["plain_ms"] = plainMilliseconds;
  state.counters["monitored_ms"] = monitoredMilliseconds;
  state.counters["added_ms"] = monitoredMilliseconds - plainMilliseconds;
  state.counters["ratio"] = monitoredMilliseconds / plainMilliseconds;
}
BENCHMARK(startOfHost)->Iterations(300)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
