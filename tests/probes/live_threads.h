// Threads that stand still at the bottom of a chain of known functions until they are let go.
#pragma once

#include <latch>
#include <thread>
#include <vector>

namespace qbv {

// Calls itself `depth` times, then counts `arrived` down and waits for `release`.
extern "C" [[gnu::noinline, gnu::noclone]] void qbvStandAtDepth(int depth, std::latch& arrived,
                                                                std::latch& release);

// So many threads at that depth; all stand when the constructor is done.
class StandingThreads {
 public:
  StandingThreads(int count, int depth);
  ~StandingThreads();
  StandingThreads(const StandingThreads&) = delete;
  StandingThreads& operator=(const StandingThreads&) = delete;

 private:
  std::latch arrived_;
  std::latch release_{1};
  std::vector<std::thread> threads_;
};

}  // namespace qbv
