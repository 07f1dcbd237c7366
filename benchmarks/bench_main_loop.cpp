// What a pass of a GLib main loop costs with the main queue in it, beside the same loop without. A pass here
// waits for nothing; a real one also does the program's work.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <unistd.h>

#include "vitalscope/platform/linux/areas.h"

namespace {

using qbv::linux_backend::dispatch;
using qbv::linux_backend::runLoop;

void post(qbv::Block block) {
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), std::move(block));
}

// As many descriptors as a program watches: its display, its bus, a few pipes.
void watchPipes(GMainContext* context, long count) {
  for (long i = 0; i < count; ++i) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return;
    GSource* const source = g_unix_fd_source_new(ends[0], G_IO_IN);
    g_source_attach(source, context);
    g_source_unref(source);
  }
}

void turn(benchmark::State& state, GMainContext* context) {
  for (auto _ : state) g_main_context_iteration(context, FALSE);
}

void passWithoutUs(benchmark::State& state) {
  GMainContext* const context = g_main_context_new();
  watchPipes(context, state.range(0));
  turn(state, context);
}

// The main queue goes to the default context, once; its pipes stay from one size to the next.
void passWithUs(benchmark::State& state) {
  static long watched = 0;
  post([] {});
  GMainContext* const context = g_main_context_default();
  watchPipes(context, state.range(0) - watched);
  watched = state.range(0);
  g_main_context_iteration(context, FALSE);
  if (!runLoop().mainLoopSeen()) state.SkipWithError("not attached");
  turn(state, context);
}

void passThatRunsABlock(benchmark::State& state) {
  for (auto _ : state) {
    post([] {});
    g_main_context_iteration(nullptr, FALSE);
  }
}

// With two observers of everything, each reading the clock where the run-loop monitor's do. Last: observers
// stay.
void passWatched(benchmark::State& state) {
  static constexpr auto look = [](qbv::CFRunLoopObserverRef, qbv::CFRunLoopActivity activity, void*) {
    if ((activity & (qbv::kCFRunLoopAfterWaiting | qbv::kCFRunLoopBeforeWaiting | qbv::kCFRunLoopExit)) != 0)
      benchmark::DoNotOptimize(qbv::platform().clock.gettimeofday());
  };
  static const bool added = [] {
    for (const std::int64_t order : {-1, 1})
      runLoop().CFRunLoopAddObserver(
          runLoop().CFRunLoopObserverCreate(qbv::kCFRunLoopAllActivities, true, order, look, nullptr),
          qbv::kCFRunLoopCommonModes);
    return true;
  }();
  benchmark::DoNotOptimize(added);
  passWithUs(state);
}

// As a tick of the hang monitor asks, when the loop is there and when it is looked for.
void askForTheLoop(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(runLoop().mainLoopSeen());
}

BENCHMARK(passWithoutUs)->Arg(2)->Arg(10);
BENCHMARK(passWithUs)->Arg(2)->Arg(10);
BENCHMARK(passThatRunsABlock);
BENCHMARK(passWatched)->Arg(10);
BENCHMARK(askForTheLoop);

}  // namespace

BENCHMARK_MAIN();
