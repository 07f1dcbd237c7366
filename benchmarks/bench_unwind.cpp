// What a frame costs: from rows seen before, from the tables, and with the compiler's own unwinder.
#include <benchmark/benchmark.h>
#include <execinfo.h>
#include <pthread.h>
#include <ucontext.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "vitalscope/platform/linux/unwind.h"
#include "vitalscope/platform/linux/unwind_images.h"

namespace {

using namespace qbv::linux_backend;

constexpr std::size_t kMost = 100;

// Runs body below a stack of about 30 frames, half of them the C library's.
__attribute__((noinline)) void inDepth(int depth, benchmark::State& state, void (*body)(benchmark::State&)) {
  static thread_local int left;
  static thread_local benchmark::State* tState;
  static thread_local void (*tBody)(benchmark::State&);
  left = depth;
  tState = &state;
  tBody = body;
  const auto deeper = [] {
    struct Sorter {
      static void sort() {
        char bytes[2] = {2, 1};
        qsort(bytes, 2, 1, compare);
      }
      static int compare(const void*, const void*) {
        left-- > 0 ? sort() : tBody(*tState);
        asm volatile("" ::: "memory");
        return 0;
      }
    };
    Sorter::sort();
  };
  deeper();
}

struct OwnStack {
  Registers registers;
  std::vector<std::byte> bytes;
  std::uint64_t base = 0;

  __attribute__((noinline)) OwnStack() {
    static constexpr int kOrder[] = {REG_RAX, REG_RDX, REG_RCX, REG_RBX, REG_RSI, REG_RDI,
                                     REG_RBP, REG_RSP, REG_R8,  REG_R9,  REG_R10, REG_R11,
                                     REG_R12, REG_R13, REG_R14, REG_R15, REG_RIP};
    ucontext_t context;
    getcontext(&context);
    for (unsigned i = 0; i < kRegisterCount; ++i) {
      registers.set(i, static_cast<std::uint64_t>(context.uc_mcontext.gregs[kOrder[i]]));
    }
    pthread_attr_t attributes;
    void* lowest = nullptr;
    std::size_t size = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getstack(&attributes, &lowest, &size);
    pthread_attr_destroy(&attributes);
    base = registers.sp();
    bytes.resize(reinterpret_cast<std::uint64_t>(lowest) + size - base);
    std::memcpy(bytes.data(), reinterpret_cast<const void*>(base), bytes.size());
  }
  StackView view() const { return {bytes.data(), base, bytes.size(), nullptr}; }
};

void perFrame(benchmark::State& state, std::size_t frames) {
  using benchmark::Counter;
  state.counters["frames"] = static_cast<double>(frames);
  state.counters["per_frame"] =
      Counter(static_cast<double>(frames), Counter::kIsIterationInvariantRate | Counter::kInvert);
}

void warm(benchmark::State& state) {
  const OwnStack stack;
  std::uint64_t addresses[kMost];
  Walk walk;
  for (auto _ : state) walk = walkStack(stack.registers, stack.view(), addresses, kMost);
  perFrame(state, walk.count);
}

// Every row is worked out from the tables, whose pages have been touched before.
void cold(benchmark::State& state) {
  const OwnStack stack;
  std::uint64_t addresses[kMost];
  Walk walk;
  for (auto _ : state) {
    walk = walkFrames(stack.registers, stack.view(), loadedImageAt, nullptr, 0, addresses, kMost);
  }
  perFrame(state, walk.count);
}

void compilersOwn(benchmark::State& state) {
  void* addresses[kMost];
  int count = 0;
  for (auto _ : state) count = backtrace(addresses, kMost);
  perFrame(state, static_cast<std::size_t>(count));
}

void warmRows(benchmark::State& state) {
  inDepth(5, state, warm);
}
void coldRows(benchmark::State& state) {
  inDepth(5, state, cold);
}
void libgccBacktrace(benchmark::State& state) {
  inDepth(5, state, compilersOwn);
}

BENCHMARK(warmRows);
BENCHMARK(coldRows);
BENCHMARK(libgccBacktrace);

}  // namespace

BENCHMARK_MAIN();
