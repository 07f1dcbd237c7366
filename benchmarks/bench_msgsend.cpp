// What a message send costs beside a virtual call, and what the hook adds to it: on other threads, on the
// main thread where it reads the clock twice, and with no run going. Beside it two bare readings of the
// clock, and the same calls timed by a compiler's instrumentation and by uftrace. All of them in programs of
// their own, the best of nine rounds in each; "added_ns" is against the plain send, or the plain call.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

namespace {

struct Way {
  const char* name;
  const char* command;
  const char* beside;
};

#define SENDS SEND_LOOP " "
constexpr const char* kUftrace = "/usr/bin/uftrace";
constexpr Way kWays[] = {
    {"virtual_call", SENDS "virtual", ""},
    {"send", SENDS "send", "virtual_call"},
    {"two_clock_readings", SENDS "clock", ""},
    {"hooked_but_stopped", SENDS "stopped", "send"},
    {"hooked_on_another_thread", SENDS "other", "send"},
    {"hooked_on_the_main_thread", SENDS "main", "send"},
    {"plain_call", SEND_LOOP_PLAIN, ""},
    {"instrumented_call", SEND_LOOP_INSTRUMENTED, "plain_call"},
    {"uftrace",
     "cd /tmp && /usr/bin/uftrace record --no-pager -d /tmp/qbv_bench_msgsend.uftrace " SEND_LOOP_UFTRACE
     "; rm -rf /tmp/qbv_bench_msgsend.uftrace*",
     "plain_call"},
};

// Nanoseconds; 0 when the program does not run.
double measure(const Way& way) {
  FILE* const pipe = popen((std::string(way.command) + " 2>/dev/null").c_str(), "r");
  char text[256] = "";
  while (fgets(text, sizeof text, pipe) != nullptr && std::atof(text) <= 0) {
  }
  pclose(pipe);
  return std::atof(text);
}

void run(benchmark::State& state, const Way& way) {
  static std::map<std::string, double> known;
  double best = 0;
  for (auto _ : state) {
    const double figure = measure(way);
    if (figure <= 0) return state.SkipWithError("cannot be measured here");
    if (best == 0 || figure < best) best = figure;
    state.SetIterationTime(figure * 1e-9);
  }
  known[way.name] = best;
  state.counters["ns"] = best;
  const auto beside = known.find(way.beside);
  if (beside == known.end()) return;
  state.counters["added_ns"] = best - beside->second;
  state.counters["ratio"] = best / beside->second;
  if (std::string(way.name) == "hooked_on_the_main_thread")
    state.counters["above_clock_ns"] = best - beside->second - known["two_clock_readings"];
}

}  // namespace

int main(int argc, char** argv) {
  for (const Way& way : kWays) {
    if (std::string(way.name) == "uftrace" && !std::filesystem::exists(kUftrace)) continue;
    benchmark::RegisterBenchmark(way.name, run, way)
        ->UseManualTime()
        ->Iterations(3)
        ->Unit(benchmark::kNanosecond);
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
}
