// What one allocation's record costs: tables, checksum and stack file, beside what one would write otherwise.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "vitalscope/memory/QBPtrsHashmap.h"
#include "vitalscope/memory/QBRapidCRC64.h"
#include "vitalscope/memory/QBStacksHashmap.h"
#include "vitalscope/platform/platform.h"

namespace {

constexpr std::uint64_t kPtrsBuckets = 500000;
constexpr std::uint64_t kStacksBuckets = 50000;

qbv::MallocZone* zone() {
  static qbv::MallocZone* const instance = qbv::platform().allocator.malloc_create_zone(0, 0);
  return instance;
}

// Addresses as an allocator gives them, in an order of their own.
std::vector<std::uint64_t> addresses(std::size_t count) {
  std::vector<std::uint64_t> result;
  for (std::size_t index = 0; index < count; ++index) result.push_back(0x7f0000000000 + index * 48);
  std::shuffle(result.begin(), result.end(), std::mt19937(1));
  return result;
}

// A stack file that goes with the object.
class TemporaryFile {
 public:
  TemporaryFile() {
    const char* const folder = std::getenv("TMPDIR");
    path_ = std::string(folder != nullptr ? folder : "/tmp") + "/bench_tables.mmap";
  }
  ~TemporaryFile() { std::remove(path_.c_str()); }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// One insert and one removal among `range` live blocks.
void ptrsInsertRemove(benchmark::State& state) {
  QBPtrsHashmap table(kPtrsBuckets, zone());
  const auto keys = addresses(static_cast<std::size_t>(state.range(0)) + 1);
  const base_ptr_log record{1, 48};
  for (std::size_t index = 1; index < keys.size(); ++index) table.insertPtr(keys[index], &record);
  std::size_t next = 0;
  for (auto _ : state) {
    table.insertPtr(keys[next], &record);
    next = next + 1 == keys.size() ? 0 : next + 1;
    std::uint32_t size;
    std::uint64_t stackId;
    benchmark::DoNotOptimize(table.removePtr(keys[next], &size, &stackId));
  }
}

void unorderedMapInsertRemove(benchmark::State& state) {
  std::unordered_map<std::uint64_t, base_ptr_log> table;
  const auto keys = addresses(static_cast<std::size_t>(state.range(0)) + 1);
  for (std::size_t index = 1; index < keys.size(); ++index) table[keys[index]] = {1, 48};
  std::size_t next = 0;
  for (auto _ : state) {
    table.emplace(keys[next], base_ptr_log{1, 48});
    next = next + 1 == keys.size() ? 0 : next + 1;
    benchmark::DoNotOptimize(table.erase(keys[next]));
  }
}

// One allocation counted under one of `range` stacks and taken off again; logged: also written to its slot.
void stacksMerge(benchmark::State& state, std::uint64_t threshold) {
  const TemporaryFile file;
  QBStacksHashmap table(kStacksBuckets, zone(), file.path(), threshold);
  std::array<std::uint64_t, 30> frames{};
  const base_stack_t event{30, frames.data(), 48, 0, 1};
  std::vector<std::uint64_t> ids;
  std::mt19937_64 random(2);
  for (std::int64_t index = 0; index < state.range(0); ++index) {
    ids.push_back(random());
    table.insertStackAndIncreaseCountIfExist(ids.back(), &event);
  }
  std::size_t next = 0;
  for (auto _ : state) {
    table.insertStackAndIncreaseCountIfExist(ids[next], &event);
    table.removeIfCountIsZero(ids[next], 48, 1);
    next = next + 1 == ids.size() ? 0 : next + 1;
  }
}
void stacksMergeUnlogged(benchmark::State& state) {
  stacksMerge(state, 1 << 20);
}
void stacksMergeLogged(benchmark::State& state) {
  stacksMerge(state, 1);
}

void slotWrite(benchmark::State& state) {
  const TemporaryFile file;
  QBStackHighSpeedLogger logger(500, zone(), file.path());
  std::array<std::uint64_t, 64> frames{};
  const base_stack_t event{static_cast<std::uint32_t>(state.range(0)), frames.data(), 48, 0, 1};
  merge_stack_t sums{0, 1, 1, 48, nullptr};
  for (auto _ : state) {
    sums.stack_id = (sums.stack_id + 1) % 400;
    logger.updateStack(&sums, &event);
  }
}

// Doubling 500 slots, making the file included.
void fileGrowth(benchmark::State& state) {
  const TemporaryFile file;
  std::array<std::uint64_t, 64> frames{};
  const base_stack_t event{30, frames.data(), 48, 0, 1};
  for (auto _ : state) {
    QBStackHighSpeedLogger logger(500, zone(), file.path());
    for (std::uint64_t id = 0; id < 499; ++id) {
      const merge_stack_t sums{id, 1, 1, 48, nullptr};
      logger.updateStack(&sums, &event);
    }
  }
}

// The words of a stack of `range` frames.
std::vector<std::uint32_t> words(benchmark::State& state) {
  std::vector<std::uint32_t> result(static_cast<std::size_t>(state.range(0)));
  std::mt19937 random(3);
  for (std::uint32_t& word : result) word = static_cast<std::uint32_t>(random());
  return result;
}

void crc(benchmark::State& state) {
  const auto data = words(state);
  for (auto _ : state) benchmark::DoNotOptimize(rapid_crc64(0, data.data(), data.size() * 4));
}

void crcBitByBit(benchmark::State& state) {
  const auto data = words(state);
  for (auto _ : state) {
    std::uint64_t crc = ~std::uint64_t{0};
    for (const std::uint32_t word : data) {
      crc ^= word;
      for (int bit = 0; bit < 32; ++bit) crc = (crc & 1) != 0 ? (crc >> 1) ^ 0xC96C5795D7870F42 : crc >> 1;
    }
    benchmark::DoNotOptimize(~crc);
  }
}

BENCHMARK(ptrsInsertRemove)->Arg(1000)->Arg(100000)->Arg(500000);
BENCHMARK(unorderedMapInsertRemove)->Arg(1000)->Arg(100000)->Arg(500000);
BENCHMARK(stacksMergeUnlogged)->Arg(200);
BENCHMARK(stacksMergeLogged)->Arg(200);
BENCHMARK(slotWrite)->Arg(10)->Arg(30)->Arg(64);
BENCHMARK(fileGrowth)->Unit(benchmark::kMicrosecond);
BENCHMARK(crc)->Arg(32)->Arg(64);
BENCHMARK(crcBitByBit)->Arg(32)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
