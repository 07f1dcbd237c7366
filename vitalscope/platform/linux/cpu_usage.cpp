#include "vitalscope/platform/linux/cpu_usage.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <ctime>
#include <mutex>
#include <new>

#include <sys/mman.h>

#include "vitalscope/platform/linux/footprint.h"
#include "vitalscope/platform/linux/proc_text.h"
#include "vitalscope/platform/linux/process_identity.h"

namespace qbv::linux_backend {

namespace {

constexpr double kHalfLife = 1.0;   // seconds
constexpr double kShortLife = 2.0;  // seconds: an even load is a fair guess
constexpr double kScale = 1000.0;

double decay(double elapsed) {
  return std::exp2(-elapsed / kHalfLife);
}

double loadOf(double cpu, double elapsed) {
  return elapsed <= 0 ? 0 : std::clamp(cpu / elapsed, 0.0, 1.0);
}

std::uint64_t nanoseconds(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<std::uint64_t>(time.tv_nsec);
}

std::uint64_t wallNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds(now);
}

struct Entry {
  std::uint32_t thread = 0;
  DecayedLoad load;
};

// Sets of entries, chosen by thread id; the one not asked about for longest makes room. All zeros is a valid
// empty table with its lock open, which is how a forked child finds it.
struct Table {
  static constexpr std::size_t kSets = 128;
  static constexpr std::size_t kWays = 8;

  std::mutex mutex;
  Entry entries[kSets][kWays];

  Entry* find(std::uint32_t thread) {
    for (Entry& entry : entries[thread % kSets]) {
      if (entry.thread == thread) return &entry;
    }
    return nullptr;
  }

  Entry& oldest(std::uint32_t thread) {
    auto& set = entries[thread % kSets];
    return *std::min_element(std::begin(set), std::end(set), [](const Entry& a, const Entry& b) {
      return a.load.wallNanoseconds < b.load.wallNanoseconds;
    });
  }
};

Table* table() {
  static std::atomic<Table*> made{nullptr};
  Table* current = made.load(std::memory_order_acquire);
  if (current != nullptr) return current;
  void* const pages = mapWipedOnFork(sizeof(Table));
  if (pages == nullptr) return nullptr;
  Table* const fresh = new (pages) Table;
  if (made.compare_exchange_strong(current, fresh)) return fresh;
  munmap(pages, sizeof(Table));
  return current;
}

DecayedLoad lookAt(std::uint32_t thread, std::uint64_t wall, std::uint64_t cpu) {
  char text[1024];
  const auto stat = parseStat(readThreadFile(thread, "stat", text));
  if (!stat) return firstSight(wall, cpu, kShortLife + 1, false);
  const double age = bootSeconds() - ticksInSeconds(stat->startTicks);
  return firstSight(wall, cpu, age, stat->state == 'R' && thread != threadId());
}

void forget(Table& known, std::uint32_t thread) {
  const std::lock_guard lock(known.mutex);
  if (Entry* const entry = known.find(thread)) *entry = Entry{};
}

// The usage of a thread that is in the table; nothing for a new one, and for a new one with an old number.
std::optional<std::int32_t> updated(Table& known, std::uint32_t thread, std::uint64_t wall,
                                    std::uint64_t cpu) {
  const std::lock_guard lock(known.mutex);
  Entry* const entry = known.find(thread);
  if (entry == nullptr) return std::nullopt;
  const bool later = wall > entry->load.wallNanoseconds;
  if (later && cpu < entry->load.cpuNanoseconds) return std::nullopt;
  entry->load.update(wall, cpu);
  return entry->load.usage();
}

}  // namespace

void DecayedLoad::update(std::uint64_t wall, std::uint64_t cpu) {
  if (wall <= wallNanoseconds) return;
  const double elapsed = static_cast<double>(wall - wallNanoseconds) / 1e9;
  const double used = cpu > cpuNanoseconds ? static_cast<double>(cpu - cpuNanoseconds) / 1e9 : 0;
  const double kept = decay(elapsed);
  sum = sum * kept + loadOf(used, elapsed) * (1 - kept);
  weight = weight * kept + (1 - kept);
  wallNanoseconds = wall;
  cpuNanoseconds = cpu;
}

std::int32_t DecayedLoad::usage() const {
  return weight <= 0 ? 0 : static_cast<std::int32_t>(std::lround(kScale * sum / weight));
}

DecayedLoad firstSight(std::uint64_t wall, std::uint64_t cpu, double age, bool runs) {
  DecayedLoad load{wall, cpu, 0, 0};
  if (age <= kShortLife) {
    const double life = std::max(age, 0.01);  // the age is known to 10 ms
    load.sum = loadOf(static_cast<double>(cpu) / 1e9, life) * (1 - decay(life));
    load.weight = 1;
  } else {
    load.weight = 1e-6;  // next to nothing against the first time that is really watched
    load.sum = runs ? load.weight * loadOf(static_cast<double>(cpu) / 1e9, age) : 0;
  }
  return load;
}

std::optional<std::uint64_t> threadCpuNanoseconds(std::uint32_t thread) {
  if (thread == 0) return std::nullopt;
  timespec used{};
  const auto clock = static_cast<clockid_t>((~thread << 3) | 6);
  if (clock_gettime(clock, &used) != 0) return std::nullopt;
  return nanoseconds(used);
}

std::optional<std::int32_t> recentUsage(std::uint32_t thread) {
  Table* const known = table();
  if (known == nullptr) return std::nullopt;
  const auto cpu = threadCpuNanoseconds(thread);
  const std::uint64_t wall = wallNow();
  if (!cpu) {
    forget(*known, thread);
    return std::nullopt;
  }
  if (const auto usage = updated(*known, thread, wall, *cpu)) return usage;

  const DecayedLoad load = lookAt(thread, wall, *cpu);
  const std::lock_guard lock(known->mutex);
  Entry* const present = known->find(thread);
  (present != nullptr ? *present : known->oldest(thread)) = Entry{thread, load};
  return load.usage();
}

}  // namespace qbv::linux_backend
