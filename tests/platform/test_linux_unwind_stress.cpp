// Threads that change their depth all the time, captured all the time: what is accepted is never wrong.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/platform/victims/unwind_levels.h"
#include "vitalscope/platform/linux/areas.h"

namespace {

using Addresses = std::vector<std::uint64_t>;

// The return addresses of a thread's frame records, after the program counter; empty when it was not
// captured.
Addresses capture(qbv::Task& task, qbv::ThreadPort port) {
  qbv::ThreadState state;
  Addresses addresses;
  if (task.thread_get_state(port, &state) != qbv::KERN_SUCCESS) return addresses;
  addresses.push_back(state.pc);
  struct Record {
    const Record* previous;
    std::uint64_t returnAddress;
  };
  const Record* record = reinterpret_cast<const Record*>(state.fp);
  for (; record != nullptr && record->returnAddress != 0; record = record->previous) {
    addresses.push_back(record->returnAddress);
  }
  return addresses;
}

std::map<std::uint64_t, int> levelsByAddress() {
  std::map<std::uint64_t, int> levels;
  for (int i = 0; i + 1 < victims::kLevels; ++i) {
    levels[reinterpret_cast<std::uint64_t>(victims::gReturnsInto[i])] = i;
  }
  return levels;
}

// From the first level that is met the chain goes down one by one to level 0, and on to the thread's start,
// which is tail.
bool right(const Addresses& chain, const std::map<std::uint64_t, int>& levels, const Addresses& tail) {
  auto at = std::find_if(chain.begin(), chain.end(), [&](std::uint64_t a) { return levels.count(a) != 0; });
  if (at != chain.end()) {
    for (int level = levels.at(*at); level >= 0; --level, ++at) {
      if (at == chain.end() || levels.count(*at) == 0 || levels.at(*at) != level) return false;
    }
    return Addresses(at, chain.end()) == tail;
  }
  // Not below level 0, or between two descents: still on the way to or from the thread's start.
  return !chain.empty() && chain.back() == tail.back();
}

std::string inHex(const Addresses& addresses) {
  std::ostringstream text;
  for (const std::uint64_t address : addresses) text << std::hex << address << ' ';
  return text.str();
}

struct Worker {
  std::thread thread;
  std::atomic<qbv::ThreadPort> port{0};
};

std::atomic<bool> gStop{false};

void work(Worker& worker, unsigned seed) {
  std::minstd_rand random(seed);
  victims::descend(victims::kLevels - 1, 0);
  worker.port = qbv::linux_backend::task().mach_thread_self();
  while (!gStop) {
    const auto what = static_cast<unsigned>(random());
    victims::descend(static_cast<int>(what / 64 % victims::kLevels), what);
  }
}

// 3,000 captures, or as many as the environment asks for.
int captureCount() {
  const char* const asked = std::getenv("QBV_STRESS_CAPTURES");
  return asked == nullptr ? 3000 : std::atoi(asked);
}

// What lies above descend(): the part of a deep chain behind level 0, the same for every worker.
Addresses tailOf(qbv::Task& task, const Worker& worker, const std::map<std::uint64_t, int>& levels) {
  for (int attempt = 0; attempt < 10000; ++attempt) {
    const Addresses chain = capture(task, worker.port);
    const auto lowest = std::find_if(chain.begin(), chain.end(), [&](std::uint64_t address) {
      return levels.count(address) != 0 && levels.at(address) == 0;
    });
    if (lowest != chain.end()) return Addresses(lowest + 1, chain.end());
  }
  return {};
}

TEST(UnwindStress, acceptedSnapshotsAreNeverWrong) {
  qbv::Task& task = qbv::linux_backend::task();
  std::vector<Worker> workers(4);
  for (unsigned i = 0; i < workers.size(); ++i) {
    workers[i].thread = std::thread([&, i] { work(workers[i], i + 1); });
  }
  for (const Worker& worker : workers) {
    while (worker.port == 0) std::this_thread::yield();
  }
  const std::map<std::uint64_t, int> levels = levelsByAddress();
  const Addresses tail = tailOf(task, workers[0], levels);
  std::atomic<int> accepted{0}, failed{0}, wrong{0}, deep{0};
  std::string firstWrong;
  const auto captureMany = [&](unsigned first) {
    for (int i = 0; i < captureCount() / 2; ++i) {
      const Addresses chain = capture(task, workers[(first + static_cast<unsigned>(i)) % 4].port);
      if (chain.empty()) {
        ++failed;
        continue;
      }
      ++accepted;
      deep += chain.size() > tail.size() + 10 ? 1 : 0;
      if (!right(chain, levels, tail) && wrong++ == 0) firstWrong = inHex(chain);
    }
  };
  std::thread other(captureMany, 2);
  captureMany(0);
  other.join();
  gStop = true;
  for (Worker& worker : workers) worker.thread.join();
  EXPECT_GE(tail.size(), 3U);
  EXPECT_EQ(wrong, 0) << "of " << accepted << ", the first:\n" << firstWrong << "\ntail " << inHex(tail);
  EXPECT_GT(accepted, captureCount() / 2) << failed << " failed";
  EXPECT_GT(deep, accepted / 4);
}

}  // namespace
