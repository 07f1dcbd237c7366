#include "tests/probes/live_threads.h"

namespace qbv {

void qbvStandAtDepth(int depth, std::latch& arrived, std::latch& release) {
  if (depth > 0) {
    qbvStandAtDepth(depth - 1, arrived, release);
  } else {
    arrived.count_down();
    release.wait();
  }
  asm volatile("");  // work after the call, or it would become a jump without a frame
}

StandingThreads::StandingThreads(int count, int depth) : arrived_(count) {
  for (int i = 0; i < count; ++i) {
    threads_.emplace_back([this, depth] { qbvStandAtDepth(depth, arrived_, release_); });
  }
  arrived_.wait();
}

StandingThreads::~StandingThreads() {
  release_.count_down();
  for (std::thread& thread : threads_) thread.join();
}

}  // namespace qbv
