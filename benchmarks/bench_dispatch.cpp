// What queues, the main queue and timers cost, beside the standard library's ways of handing work over.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "vitalscope/platform/linux/areas.h"

namespace {

using qbv::linux_backend::dispatch;
using qbv::linux_backend::runLoop;

// One hand-over and back: waits for an answer on a condition.
class Answer {
 public:
  void give() {
    const std::lock_guard lock(mutex_);
    given_ = true;
    changed_.notify_one();
  }
  void take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return given_; });
    given_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool given_ = false;
};

void roundTrip(benchmark::State& state, const qbv::DispatchQueueRef& queue) {
  Answer answer;
  for (auto _ : state) {
    dispatch().dispatch_async(queue, [&answer] { answer.give(); });
    answer.take();
  }
}

void roundTripSerialQueue(benchmark::State& state) {
  roundTrip(state, dispatch().dispatch_queue_create("bench", qbv::QueueKind::serial));
}

void roundTripGlobalQueue(benchmark::State& state) {
  roundTrip(state, dispatch().dispatch_get_global_queue());
}

// The least that two threads can do: a condition each way, nothing queued, nothing allocated.
void roundTripTwoConditions(benchmark::State& state) {
  Answer there;
  Answer back;
  std::atomic<bool> enough = false;
  std::jthread partner([&] {
    for (;;) {
      there.take();
      if (enough) return;
      back.give();
    }
  });
  for (auto _ : state) {
    there.give();
    back.take();
  }
  enough = true;
  there.give();
}

void roundTripStdAsync(benchmark::State& state) {
  for (auto _ : state) std::async(std::launch::async, [] {}).get();
}

// The poster's share only: the queue's worker is awake and busy with the blocks before.
void postToSerialQueue(benchmark::State& state) {
  const auto queue = dispatch().dispatch_queue_create("bench", qbv::QueueKind::serial);
  constexpr int kBatch = 1000;
  Answer answer;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) dispatch().dispatch_async(queue, [] {});
    state.PauseTiming();
    dispatch().dispatch_async(queue, [&answer] { answer.give(); });
    answer.take();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

// Range: blocks that wait when the queue is drained. With one, each post wakes and each drain clears.
void postToMainQueueAndDrain(benchmark::State& state) {
  const auto main = dispatch().dispatch_get_main_queue();
  std::int64_t ran = 0;
  for (auto _ : state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) dispatch().dispatch_async(main, [&ran] { ++ran; });
    runLoop().drain();
  }
  state.SetItemsProcessed(ran);
}

// Processor time and context switches of one firing of a timer whose handler does nothing.
void timerFiring(benchmark::State& state) {
  constexpr std::uint64_t kInterval = 2'000'000;
  std::atomic<int> firings = 0;
  const auto timer =
      dispatch().dispatch_source_create(dispatch().dispatch_queue_create("bench", qbv::QueueKind::serial));
  dispatch().dispatch_source_set_timer(timer, kInterval, 0);
  dispatch().dispatch_source_set_event_handler(timer, [&firings] {
    ++firings;
    firings.notify_one();
  });
  dispatch().dispatch_resume(timer);
  firings.wait(0);
  double microseconds = 0;
  double switches = 0;
  for (auto _ : state) {
    rusage before{};
    rusage after{};
    const int begin = firings;
    getrusage(RUSAGE_SELF, &before);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    getrusage(RUSAGE_SELF, &after);
    const double count = firings - begin;
    const auto used = [](const rusage& r) {
      return 1e6 * static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
             static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec);
    };
    microseconds = (used(after) - used(before)) / count;
    switches = static_cast<double>(after.ru_nvcsw - before.ru_nvcsw) / count;
  }
  dispatch().dispatch_source_cancel(timer);
  state.counters["us_per_firing"] = microseconds;
  state.counters["switches_per_firing"] = switches;
}

BENCHMARK(roundTripSerialQueue)->UseRealTime();
BENCHMARK(roundTripGlobalQueue)->UseRealTime();
BENCHMARK(roundTripTwoConditions)->UseRealTime();
BENCHMARK(roundTripStdAsync)->UseRealTime();
BENCHMARK(postToSerialQueue)->UseRealTime();
BENCHMARK(postToMainQueueAndDrain)->Arg(1)->Arg(100);
BENCHMARK(timerFiring)->UseRealTime()->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
