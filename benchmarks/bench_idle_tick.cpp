// What one tick of the hang monitor costs when nothing is wrong: a guard, a post to the main queue, one CPU
// sampling.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/platform/platform.h"

namespace {

// The real queues, but the timer's handler is kept for the benchmark to call.
class HandlerKeeper final : public qbv::Dispatch {
 public:
  explicit HandlerKeeper(qbv::Dispatch& real) : real_(real) {}
  qbv::DispatchQueueRef dispatch_queue_create(const std::string& label, qbv::QueueKind kind) override {
    return real_.dispatch_queue_create(label, kind);
  }
  qbv::DispatchQueueRef dispatch_get_global_queue() override { return real_.dispatch_get_global_queue(); }
  qbv::DispatchQueueRef dispatch_get_main_queue() override { return real_.dispatch_get_main_queue(); }
  void dispatch_async(const qbv::DispatchQueueRef& queue, qbv::Block block) override {
    real_.dispatch_async(queue, std::move(block));
  }
  qbv::DispatchTimerRef dispatch_source_create(const qbv::DispatchQueueRef& queue) override {
    return real_.dispatch_source_create(queue);
  }
  void dispatch_source_set_timer(const qbv::DispatchTimerRef&, std::uint64_t, std::uint64_t) override {}
  void dispatch_source_set_event_handler(const qbv::DispatchTimerRef&, qbv::Block handler) override {
    tick = std::move(handler);
  }
  void dispatch_resume(const qbv::DispatchTimerRef&) override {}
  void dispatch_source_cancel(const qbv::DispatchTimerRef&) override {}
  qbv::DispatchThreadRef startThread(const std::string& name, qbv::Block entry) override {
    return real_.startThread(name, std::move(entry));
  }

  qbv::Block tick;

 private:
  qbv::Dispatch& real_;
};

// A hand-written watchdog that only looks at its own CPU use would read this file once a second.
double readOwnStat() {
  char text[1024];
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  const ssize_t length = read(file, text, sizeof text);
  close(file);
  return static_cast<double>(length);
}

double nanosecondsOf(int times, const auto& action) {
  const std::uint64_t begin = qbv::platform().clock.monotonicNanoseconds();
  for (int i = 0; i < times; ++i) benchmark::DoNotOptimize(action());
  return static_cast<double>(qbv::platform().clock.monotonicNanoseconds() - begin) / times;
}

void idleTick(benchmark::State& state) {
  const qbv::Platform& real = qbv::linux_backend::platform();
  HandlerKeeper keeper(real.dispatch);
  const qbv::ScopedPlatform scope(*new qbv::Platform(real.with(keeper)));
  QBVitalscopeANRMonitor& monitor = *new QBVitalscopeANRMonitor;
  real.notifications.defaultCenter().post(qbv::NSApplicationDidBecomeActiveNotification);
  monitor.start();

  // Beside the main thread so many others wait, as in a desktop application.
  std::atomic<bool> stop{false};
  std::vector<std::thread> others;
  for (int i = 1; i < state.range(0); ++i) others.emplace_back([&] { stop.wait(false); });

  // Ticks come one a second in life; without rests between them the monitor would find the benchmark itself.
  double total = 0;
  for (auto _ : state) {
    const std::uint64_t begin = real.clock.monotonicNanoseconds();
    keeper.tick();
    real.runLoop.drain();
    const auto taken = static_cast<double>(real.clock.monotonicNanoseconds() - begin);
    state.SetIterationTime(taken / 1e9);
    total += taken;
    std::this_thread::sleep_for(std::chrono::nanoseconds(static_cast<std::int64_t>(2 * taken)));
  }
  if (monitor.anrTimes() > state.iterations() / 100 + 1) state.SkipWithError("ticks had findings");
  const double tick = total / static_cast<double>(state.iterations());
  const double stat = nanosecondsOf(1000, readOwnStat);
  state.counters["read_stat_ns"] = stat;
  state.counters["ratio"] = tick / stat;
  state.counters["core_percent_at_1Hz"] = tick / 1e9 * 100;
  stop = true;
  stop.notify_all();
  for (std::thread& other : others) other.join();
}
BENCHMARK(idleTick)->Arg(10)->Arg(100)->Arg(500)->UseManualTime();

}  // namespace

BENCHMARK_MAIN();
