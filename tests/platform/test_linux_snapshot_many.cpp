// Many threads captured together, and many threads that capture.
#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <set>
#include <thread>
#include <vector>

#include "tests/platform/snapshot_threads.h"

namespace qbv::linux_backend {
namespace {

using namespace test;

TEST(Snapshot, FourCapturesAtOnceNeitherStickNorMix) {
  Gate gate;
  std::vector<std::unique_ptr<ChainThread>> targets;
  for (int i = 0; i < 3; ++i) targets.push_back(std::make_unique<ChainThread>(test::spin));
  for (int i = 0; i < 3; ++i) {
    targets.push_back(std::make_unique<ChainThread>([&](const auto&) { gate.wait(); }));
  }
  for (std::size_t i = 3; i < targets.size(); ++i) waitUntilBlocked(targets[i]->port());
  std::atomic<int> good{0}, failed{0};
  {
    std::vector<ThreadPort> capturerPorts(4);
    std::latch ready{5};
    std::vector<std::unique_ptr<TestThread>> capturers;
    for (std::size_t c = 0; c < 4; ++c) {
      capturers.push_back(std::make_unique<TestThread>([&, c](const std::atomic<bool>& stop) {
        ready.arrive_and_wait();
        for (std::size_t turn = c; !stop; ++turn) {
          const ChainThread& target = *targets[turn % targets.size()];
          const auto stack = stackOf(target.port());
          if (stack.empty()) {
            ++failed;
          } else {
            EXPECT_TRUE(holds(stack, target.chain())) << stack.size() << " frames";
            ++good;
          }
          // And one another.
          const ThreadPort other = capturerPorts[(c + 1 + turn % 3) % 4];
          stackOf(other);
        }
      }));
      capturerPorts[c] = capturers.back()->port();
    }
    ready.arrive_and_wait();
    const auto end = SteadyClock::now() + std::chrono::seconds(test::kSanitized ? 3 : 10);
    while (SteadyClock::now() < end && !testing::Test::HasFailure()) poll(nullptr, 0, 20);
  }
  gate.release();
  EXPECT_GT(good, 100);
  EXPECT_LT(failed, good);
}

TEST(Snapshot, ABatchOfHundredsOfThreads) {
  constexpr int kWaiting = 180;
  constexpr int kSpinning = test::kSanitized ? 8 : 70;  // more than there are slots, where time allows
  Gate gate;
  std::vector<std::unique_ptr<ChainThread>> threads;
  std::latch spinNow{1};
  for (int i = 0; i < kWaiting; ++i) {
    threads.push_back(std::make_unique<ChainThread>([&](const auto&) { gate.wait(); }));
  }
  for (int i = 0; i < kSpinning; ++i) {
    threads.push_back(std::make_unique<ChainThread>([&](const auto& stop) {
      spinNow.wait();
      test::spin(stop);
    }));
  }
  spinNow.count_down();
  std::vector<ThreadPort> ports{task().mach_thread_self()};
  for (const auto& thread : threads) ports.push_back(thread->port());
  // A machine that is busy with others leaves some spinning threads no time within one batch.
  std::set<const ChainThread*> found;
  for (int attempt = 0; found.size() < threads.size() && attempt < 10; ++attempt) {
    const auto begin = SteadyClock::now();
    task().willCaptureThreads(ports.data(), static_cast<std::uint32_t>(ports.size()));
    RecordProperty("milliseconds",
                   static_cast<int>((SteadyClock::now() - begin) / std::chrono::milliseconds(1)));
    for (const auto& thread : threads)
      if (holds(stackOf(thread->port()), thread->chain())) found.insert(thread.get());
    task().didCaptureThreads();
  }
  gate.release();
  for (const auto& thread : threads) thread->stop();
  EXPECT_EQ(found.size(), threads.size());
}

TEST(Snapshot, ABatchAnswersFromOneInstant) {
  Gate gate;
  ChainThread thread([&](const auto&) { gate.wait(); });
  waitUntilBlocked(thread.port());
  const ThreadPort port = thread.port();
  task().willCaptureThreads(&port, 1);
  gate.release();
  ThreadBasicInfo info;
  while (task().thread_info(port, &info) == KERN_SUCCESS) std::this_thread::yield();
  EXPECT_TRUE(holds(stackOf(port), thread.chain())) << "it has ended since, and is in the batch";
  task().didCaptureThreads();
  EXPECT_TRUE(stackOf(port).empty());
}

}  // namespace
}  // namespace qbv::linux_backend
