// What the allocation monitor adds to a pair of malloc and free, beside tools that count allocations and
// beside other allocators; and what counting adds to an object's life. Every malloc figure is a process of
// its own, the best of up to nine rounds in it; "ratio" is against the plain C library on as many threads,
// "added_ns" the difference.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <utility>

#include "vitalscope/memory/QBObjectAllocMonitor.h"
#include "vitalscope/platform/platform.h"

namespace {

struct Way {
  const char* name;
  const char* environment;
  const char* program;
  const char* argument;
  const char* needs;  // a file that is there where it can be measured
};

#define MULTIARCH "/usr/lib/x86_64-linux-gnu/"
constexpr Way kWays[] = {
    {"plain", "", MALLOC_LOOP_PLAIN, "", ""},
    {"interposed", "", MALLOC_LOOP_MONITORED_PROGRAM, "", ""},
    {"counting", "", MALLOC_LOOP_MONITORED_PROGRAM, "counting", ""},
    {"memusage", "LD_PRELOAD=libmemusage.so MEMUSAGE_OUTPUT=/dev/null", MALLOC_LOOP_PLAIN, "",
     MULTIARCH "libmemusage.so"},
    {"heaptrack", "LD_PRELOAD=/usr/lib/heaptrack/libheaptrack_preload.so DUMP_HEAPTRACK_OUTPUT=/dev/null",
     MALLOC_LOOP_PLAIN, "", "/usr/lib/heaptrack/libheaptrack_preload.so"},
    {"jemalloc", "LD_PRELOAD=libjemalloc.so.2", MALLOC_LOOP_PLAIN, "", MULTIARCH "libjemalloc.so.2"},
    {"jemalloc_profiler", "LD_PRELOAD=libjemalloc.so.2 MALLOC_CONF=prof:true,prof_active:true",
     MALLOC_LOOP_PLAIN, "", MULTIARCH "libjemalloc.so.2"},
    {"tcmalloc", "LD_PRELOAD=libtcmalloc_minimal.so.4", MALLOC_LOOP_PLAIN, "",
     MULTIARCH "libtcmalloc_minimal.so.4"},
    {"tcmalloc_profiler", "LD_PRELOAD=libtcmalloc.so.4 HEAPPROFILE=/dev/null", MALLOC_LOOP_PLAIN, "",
     MULTIARCH "libtcmalloc.so.4"},
};

// Nanoseconds of a pair; 0 when the program does not run.
double measure(const Way& way, int threads, const char* sizes) {
  const std::string command = std::string(way.environment) + " " + way.program + " " +
                              std::to_string(threads) + " " + sizes + " " + way.argument + " 2>/dev/null";
  FILE* const pipe = popen(command.c_str(), "r");
  char text[256] = "";
  while (fgets(text, sizeof text, pipe) != nullptr && std::atof(text) <= 0) {
  }
  pclose(pipe);
  return std::atof(text);
}

double plain(int threads, const char* sizes) {
  static std::map<std::pair<int, std::string>, double> known;
  double& figure = known[{threads, sizes}];
  if (figure == 0) figure = measure(kWays[0], threads, sizes);
  return figure;
}

void mallocPair(benchmark::State& state, const Way& way, const char* sizes) {
  const int threads = static_cast<int>(state.range(0));
  const double base = plain(threads, sizes);
  double figure = 0;
  for (auto _ : state) {
    figure = measure(way, threads, sizes);
    if (figure <= 0) return state.SkipWithError("does not run");
    state.SetIterationTime(figure * 1e-9);
  }
  state.counters["pair_ns"] = figure;
  state.counters["added_ns"] = figure - base;
  state.counters["ratio"] = figure / base;
}

using qbv::id, qbv::SEL;

// The root class's own methods, and what load() exchanges them for.
template <bool counted>
void objectPair(benchmark::State& state) {
  if (counted) NSObject_AllocMonitor::load();
  qbv::Runtime& runtime = qbv::platform().runtime;
  const qbv::Class cls = runtime.NSClassFromString("NSObject");
  const SEL allocSelector = runtime.NSSelectorFromString("alloc");
  const SEL deallocSelector = runtime.NSSelectorFromString("dealloc");
  const auto alloc = reinterpret_cast<id (*)(id, SEL)>(
      runtime.method_getImplementation(runtime.class_getClassMethod(cls, allocSelector)));
  const auto dealloc = reinterpret_cast<void (*)(id, SEL)>(
      runtime.method_getImplementation(runtime.class_getInstanceMethod(cls, deallocSelector)));
  for (auto _ : state) {
    const id object = alloc(qbv::Runtime::classObject(cls), allocSelector);
    benchmark::DoNotOptimize(object);
    dealloc(object, deallocSelector);
  }
}
BENCHMARK(objectPair<false>)->Name("object/plain")->Threads(1)->Threads(8)->UseRealTime();
BENCHMARK(objectPair<true>)->Name("object/counted")->Threads(1)->Threads(8)->UseRealTime();

void registerMallocPairs() {
  for (const char* const sizes : {"fixed", "mixed"})
    for (const Way& way : kWays) {
      if (*way.needs != '\0' && !std::filesystem::exists(way.needs)) continue;
      benchmark::RegisterBenchmark((std::string("malloc/") + sizes + "/" + way.name).c_str(), mallocPair, way,
                                   sizes)
          ->ArgName("threads")
          ->Arg(1)
          ->Arg(2)
          ->Arg(4)
          ->Arg(8)
          ->Iterations(1)
          ->UseManualTime();
    }
}

}  // namespace

int main(int count, char** arguments) {
  benchmark::Initialize(&count, arguments);
  // The C library is faster until a first thread starts, which would be in favour of what is measured first.
  std::thread([] {}).join();
  registerMallocPairs();
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
