#include <execinfo.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "vitalscope/platform/platform.h"

namespace qbv {
namespace {

struct Stacks {
  std::vector<void*> ours;
  std::vector<void*> witness;
};

[[gnu::noinline]] void capture(Stacks& stacks, int room) {
  stacks.ours.resize(static_cast<std::size_t>(room));
  stacks.ours.resize(static_cast<std::size_t>(platform().task.backtrace(stacks.ours.data(), room)));
  stacks.witness.resize(300);
  stacks.witness.resize(static_cast<std::size_t>(::backtrace(stacks.witness.data(), 300)));
}

// NOLINTNEXTLINE(misc-no-recursion)
[[gnu::noinline]] int descend(int levels, Stacks& stacks, int room) {
  // Frames of different size, so that a wrong rule is not right by chance.
  volatile char frame[96];
  frame[0] = static_cast<char>(levels);
  if (levels == 0)
    capture(stacks, room);
  else
    descend(levels - 1, stacks, room);
  return frame[0];
}

// A sanitizer's own frames come before the ones that were asked about.
void dropInterceptors(Stacks& stacks) {
#if defined(QBV_SANITIZED)
  const auto within = [&](const void* address) {
    const auto distance = static_cast<const char*>(address) - static_cast<const char*>(stacks.ours[0]);
    return distance > 0 && distance < 2000;
  };
  for (int i = 0; i < 3 && !within(stacks.witness[0]); ++i) stacks.witness.erase(stacks.witness.begin());
#else
  static_cast<void>(stacks);
#endif
}

// The witness's first address is behind its own call, in the same function.
void expectSameButFirst(Stacks stacks, std::size_t count) {
  ASSERT_FALSE(stacks.ours.empty());
  dropInterceptors(stacks);
  ASSERT_GE(stacks.witness.size(), count);
  ASSERT_EQ(stacks.ours.size(), count);
  for (std::size_t i = 1; i < count; ++i) EXPECT_EQ(stacks.ours[i], stacks.witness[i]) << "frame " << i;
  const auto distance =
      static_cast<const char*>(stacks.witness[0]) - static_cast<const char*>(stacks.ours[0]);
  EXPECT_GT(distance, 0);
  EXPECT_LT(distance, 2000);
}

TEST(OwnBacktrace, FindsTheSameFramesAsTheCLibrary) {
  Stacks stacks;
  descend(12, stacks, 64);
  ASSERT_GT(stacks.ours.size(), 14U);
  expectSameButFirst(stacks, std::min<std::size_t>(stacks.ours.size(), 64));
  EXPECT_GE(stacks.ours.size() + 2, stacks.witness.size()) << "to the outermost frame";
}

TEST(OwnBacktrace, ReachesBeyondItsFirstCopyAndStopsWhereTheRoomEnds) {
  Stacks stacks;
  descend(150, stacks, 64);
  expectSameButFirst(stacks, 64);
  descend(3, stacks, 2);
  expectSameButFirst(stacks, 2);
  EXPECT_EQ(platform().task.backtrace(nullptr, 0), 0);
}

TEST(OwnBacktrace, EveryThreadSeesItsOwn) {
  std::vector<Stacks> all(8);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < all.size(); ++i)
    threads.emplace_back([&all, i] { descend(static_cast<int>(i * 5), all[i], 64); });
  for (std::thread& thread : threads) thread.join();
  for (const Stacks& stacks : all) expectSameButFirst(stacks, stacks.ours.size());
  EXPECT_EQ(all[5].ours.size(), all[4].ours.size() + 5);
}

}  // namespace
}  // namespace qbv
