#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

#include "vitalscope/platform/repeating_timer.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

class RepeatingTimerTest : public ::testing::Test {
 protected:
  RepeatingTimer* timerOf(Block tick) {
    made_ = std::make_unique<RepeatingTimer>("a.queue", 2.0, std::move(tick));
    return made_.get();
  }
  ScriptedPlatform scripted;

 private:
  std::unique_ptr<RepeatingTimer> made_;
};

TEST_F(RepeatingTimerTest, AnyIntervalIsUsableAndCountsFromTheNextStart) {
  RepeatingTimer& timer = *timerOf([] {});
  const double infinity = std::numeric_limits<double>::infinity();
  for (const double seconds : {2.0, 0.0, -5.0, std::nan(""), infinity, 0.25}) {
    timer.setInterval(seconds);
    timer.start();
    timer.stop();
  }
  std::vector<double> intervals;
  for (const ScriptedTimerInfo& info : scripted.dispatch.timers())
    intervals.push_back(static_cast<double>(info.intervalNanoseconds) / 1e9);
  EXPECT_THAT(intervals, ::testing::ElementsAre(2.0, 0.001, 0.001, 0.001, 1e9, 0.25));
  EXPECT_THAT(scripted.dispatch.queueLabels(), ::testing::ElementsAre("a.queue")) << "one queue for all";
}

TEST_F(RepeatingTimerTest, ATimerThatWasOnlyLookedAtNeverTicks) {
  int ticks = 0;
  RepeatingTimer& timer = *timerOf([&] { ++ticks; });
  const DispatchTimerRef looked = timer.timer();
  EXPECT_EQ(timer.timer(), looked);
  scripted.advance(10);
  EXPECT_EQ(ticks, 0);
  timer.stop();
  timer.start();
  EXPECT_NE(timer.timer(), looked);
  scripted.advance(4);
  EXPECT_EQ(ticks, 3);
}

TEST_F(RepeatingTimerTest, ATickMayStopItsTimerAndTheFlagHasTheLastWord) {
  std::atomic<bool> wanted{true};
  int ticks = 0;
  RepeatingTimer* timer = nullptr;
  timer = timerOf([&] {
    ++ticks;
    timer->stopUnless(wanted);
  });
  timer->start();
  scripted.advance(4);
  EXPECT_EQ(ticks, 3);
  wanted = false;
  scripted.advance(10);
  EXPECT_EQ(ticks, 4);
  EXPECT_FALSE(timer->isStart());
}

}  // namespace
}  // namespace qbv
