// Rebinding one symbol in a process with many libraries, beside looking at the very same relocations without
// more.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <link.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/images.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/profiler/qb_symbol_rebind.h"

namespace {

constexpr int kLibraries = 150;

int imageCount() {
  int count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info*, std::size_t, void* counted) {
        ++*static_cast<int*>(counted);
        return 0;
      },
      &count);
  return count;
}

// Libraries of this machine, the large ones of a desktop first if there are any.
int loadLibraries() {
  static const int loaded = [] {
    std::vector<std::pair<std::uintmax_t, std::string>> files;
    std::error_code error;
    for (const char* folder : {"/usr/lib/x86_64-linux-gnu", "/usr/lib/aarch64-linux-gnu", "/usr/lib64"}) {
      for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        const std::string name = entry.path().filename();
        const bool usual = name.starts_with("lib") && name.find(".so.") != std::string::npos &&
                           !name.starts_with("libasan") && !name.starts_with("libtsan") &&
                           !name.starts_with("liblsan") && !name.starts_with("libubsan") &&
                           !name.starts_with("libhwasan") && !name.starts_with("libLLVM") &&
                           !name.starts_with("libthread_db") && !name.starts_with("libmemusage");
        if (usual && entry.is_regular_file(error)) files.emplace_back(entry.file_size(error), entry.path());
      }
    }
    std::sort(files.rbegin(), files.rend());
    for (const auto& [size, path] : files) {
      if (imageCount() >= kLibraries) break;
      dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    }
    return imageCount();
  }();
  return loaded;
}

std::uint64_t slotsOf(const dl_phdr_info& info, const char* wanted, std::uint64_t& matches) {
  const ElfW(Dyn)* dynamic = nullptr;
  for (int i = 0; i < info.dlpi_phnum; ++i) {
    if (info.dlpi_phdr[i].p_type == PT_DYNAMIC)
      dynamic = reinterpret_cast<const ElfW(Dyn)*>(info.dlpi_addr + info.dlpi_phdr[i].p_vaddr);
  }
  const ElfW(Sym)* symbols = nullptr;
  const char* strings = nullptr;
  const ElfW(Rela) * tables[2]{};
  std::size_t sizes[2]{};
  for (; dynamic != nullptr && dynamic->d_tag != DT_NULL; ++dynamic) {
    if (dynamic->d_tag == DT_SYMTAB) symbols = reinterpret_cast<const ElfW(Sym)*>(dynamic->d_un.d_ptr);
    if (dynamic->d_tag == DT_STRTAB) strings = reinterpret_cast<const char*>(dynamic->d_un.d_ptr);
    if (dynamic->d_tag == DT_JMPREL) tables[0] = reinterpret_cast<const ElfW(Rela)*>(dynamic->d_un.d_ptr);
    if (dynamic->d_tag == DT_PLTRELSZ) sizes[0] = dynamic->d_un.d_val;
    if (dynamic->d_tag == DT_RELA) tables[1] = reinterpret_cast<const ElfW(Rela)*>(dynamic->d_un.d_ptr);
    if (dynamic->d_tag == DT_RELASZ) sizes[1] = dynamic->d_un.d_val;
  }
  std::uint64_t slots = 0;
  if (reinterpret_cast<std::uint64_t>(symbols) < info.dlpi_addr) return 0;  // the vDSO's are not relocated
  for (int t = 0; t < 2; ++t) {
    for (std::size_t i = 0; tables[t] != nullptr && i < sizes[t] / sizeof(ElfW(Rela)); ++i) {
      const std::uint64_t symbol = ELF64_R_SYM(tables[t][i].r_info);
      const std::uint64_t type = ELF64_R_TYPE(tables[t][i].r_info);
      if (symbol == 0 || (type != R_X86_64_GLOB_DAT && type != R_X86_64_JUMP_SLOT)) continue;
      ++slots;
      matches += std::strcmp(strings + symbols[symbol].st_name, wanted) == 0 ? 1 : 0;
    }
  }
  return slots;
}

void rebind(void* to, void** replaced) {
  const qb_rebinding request{"pthread_mutex_destroy", to, replaced};
  qb_rebind_symbols(&request);
}

// The scale: every slot of every image compared by name, straight from the loader's list.
void PlainWalk(benchmark::State& state) {
  state.counters["images"] = loadLibraries();
  std::uint64_t slots = 0;
  for (auto _ : state) {
    struct Found {
      std::uint64_t slots = 0;
      std::uint64_t matches = 0;
    } found;
    dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* argument) {
          auto& all = *static_cast<Found*>(argument);
          all.slots += slotsOf(*info, "pthread_mutex_destroy", all.matches);
          return 0;
        },
        &found);
    slots = found.slots;
    state.counters["matches"] = static_cast<double>(found.matches);
  }
  state.counters["slots"] = static_cast<double>(slots);
}
BENCHMARK(PlainWalk)->Unit(benchmark::kMicrosecond);

// The first pass of a process: describes the slots of all images, then rewrites.
void RecordAllSlots(benchmark::State& state) {
  state.counters["images"] = loadLibraries();
  for (auto _ : state) {
    state.PauseTiming();
    auto* const images = new qbv::linux_backend::LoadedImages;
    const std::uint32_t count = images->settledImageCount();
    state.ResumeTiming();
    for (std::uint32_t i = 0; i < count; ++i) benchmark::DoNotOptimize(images->headerWithSlots(i));
  }
}
BENCHMARK(RecordAllSlots)->Unit(benchmark::kMicrosecond)->Iterations(40);

void RebindAll(benchmark::State& state) {
  state.counters["images"] = loadLibraries();
  void* original = nullptr;
  rebind(reinterpret_cast<void*>(&pthread_mutex_destroy), &original);
  for (auto _ : state) rebind(reinterpret_cast<void*>(&pthread_mutex_destroy), nullptr);
}
BENCHMARK(RebindAll)->Unit(benchmark::kMicrosecond)->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
