// Address to symbol in a process with 150 libraries: this library's look-up, and the C library's own two in
// the same run. Addresses lie in exported functions and between them, spread over all libraries.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/images.h"
#include "vitalscope/probes/symbolicate.h"

namespace {

constexpr std::size_t kLibraries = 150;
constexpr std::size_t kAddresses = 4096;

// The thread's own CPU time, so that a busy machine does not blur the comparison.
struct CpuClock {
  static double now() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e9 + static_cast<double>(time.tv_nsec);
  }
};

double nanosecondsSince(double start) {
  return CpuClock::now() - start;
}

struct Code {
  std::uint64_t start, size;
};

std::vector<Code> loadedCode() {
  std::vector<Code> code;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        for (int i = 0; i < info->dlpi_phnum; ++i) {
          const ElfW(Phdr)& header = info->dlpi_phdr[i];
          if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0)
            static_cast<std::vector<Code>*>(result)->push_back(
                {info->dlpi_addr + header.p_vaddr, header.p_memsz});
        }
        return 0;
      },
      &code);
  return code;
}

// Libraries whose start-up code does nothing to a process that did not ask for them.
bool harmless(const std::string& name) {
  for (const char* const part :
       {"san.so", "preload", "jemalloc", "tcmalloc", "SegFault", "pcprofile", "memusage", "audit", "profiler",
        "unwind", "libgcj", "mpi", "libc_malloc_debug", "libgtk"}) {
    if (name.find(part) != std::string::npos) return false;
  }
  return name.find(".so.") != std::string::npos;
}

void loadLibraries() {
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/x86_64-linux-gnu")) {
    if (loadedCode().size() > kLibraries) return;
    if (entry.is_regular_file() && harmless(entry.path().filename()))
      dlopen(entry.path().c_str(), RTLD_LAZY | RTLD_LOCAL);
  }
}

const std::vector<std::uint64_t>& addresses() {
  static const std::vector<std::uint64_t> chosen = [] {
    loadLibraries();
    const std::vector<Code> code = loadedCode();
    std::mt19937_64 random(1);
    std::vector<std::uint64_t> result;
    while (result.size() < kAddresses) {
      const Code& object = code[random() % code.size()];
      result.push_back(object.start + random() % object.size);
    }
    return result;
  }();
  return chosen;
}

double warm(qbv::Images& images) {
  static std::vector<qbv_symbol_record> records(kAddresses);
  const auto start = CpuClock::now();
  qbv::symbolicate(images, addresses().data(), records.data(), kAddresses, 0);
  return nanosecondsSince(start) / kAddresses;
}

double ours() {
  qbv::Images& images = qbv::linux_backend::images();
  warm(images);
  double best = warm(images);
  for (int i = 0; i < 10; ++i) best = std::min(best, warm(images));
  return best;
}

// Per address in nanoseconds, so that all three stand on the same line.
void report(benchmark::State& state, double perAddress) {
  state.counters["ns_per_address"] = perAddress;
  state.counters["times_ours"] = perAddress / ours();
  state.counters["libraries"] = static_cast<double>(loadedCode().size());
}

void BM_SymbolicateWarm(benchmark::State& state) {
  static_cast<void>(addresses());
  qbv::Images& images = qbv::linux_backend::images();
  warm(images);
  double total = 0;
  for (auto _ : state) {
    const double once = warm(images);
    total += once;
    benchmark::DoNotOptimize(once);
  }
  report(state, total / static_cast<double>(state.iterations()));
}
BENCHMARK(BM_SymbolicateWarm)->Unit(benchmark::kMicrosecond);

void BM_Dladdr(benchmark::State& state) {
  const std::vector<std::uint64_t>& all = addresses();
  const auto start = CpuClock::now();
  for (auto _ : state) {
    for (const std::uint64_t address : all) {
      Dl_info info;
      benchmark::DoNotOptimize(dladdr(reinterpret_cast<void*>(address), &info));
    }
  }
  report(state, nanosecondsSince(start) / static_cast<double>(state.iterations() * all.size()));
}
BENCHMARK(BM_Dladdr)->Unit(benchmark::kMicrosecond);

void BM_BacktraceSymbols(benchmark::State& state) {
  std::vector<void*> all;
  for (const std::uint64_t address : addresses()) all.push_back(reinterpret_cast<void*>(address));
  const auto start = CpuClock::now();
  for (auto _ : state) std::free(backtrace_symbols(all.data(), static_cast<int>(all.size())));
  report(state, nanosecondsSince(start) / static_cast<double>(state.iterations() * all.size()));
}
BENCHMARK(BM_BacktraceSymbols)->Unit(benchmark::kMicrosecond);

// A list of its own each time: listing all libraries, nothing built.
void BM_ListLibraries(benchmark::State& state) {
  static_cast<void>(addresses());
  for (auto _ : state) {
    auto* const list = new qbv::linux_backend::LoadedImages;
    benchmark::DoNotOptimize(list->_dyld_image_count());
  }
  state.counters["libraries"] = static_cast<double>(loadedCode().size());
}
BENCHMARK(BM_ListLibraries)->Unit(benchmark::kMicrosecond)->Iterations(50);

// The same with the symbols of every library built: what the first look-ups pay, spread over all.
void BM_FirstTouch(benchmark::State& state) {
  static_cast<void>(addresses());
  double symbols = 0;
  for (auto _ : state) {
    auto* const list = new qbv::linux_backend::LoadedImages;
    symbols += warm(*list) * kAddresses;
  }
  state.counters["ns_per_address"] = symbols / kAddresses / static_cast<double>(state.iterations());
  state.counters["us_per_library"] =
      symbols / 1000 / static_cast<double>(loadedCode().size()) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_FirstTouch)->Unit(benchmark::kMillisecond)->Iterations(5);

void BM_ImageCountUnchanged(benchmark::State& state) {
  qbv::Images& images = qbv::linux_backend::images();
  for (auto _ : state) benchmark::DoNotOptimize(images._dyld_image_count());
}
BENCHMARK(BM_ImageCountUnchanged);

}  // namespace

BENCHMARK_MAIN();
