#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

using ::testing::ElementsAre;

class ScriptedDispatchTest : public ::testing::Test {
 protected:
  double elapsed() { return scripted.clock.CFAbsoluteTimeGetCurrent() - ScriptedClock::kStart; }
  void note(const std::string& what) { trace.push_back(what + "@" + std::to_string(elapsed()).substr(0, 3)); }

  DispatchTimerRef timer(const DispatchQueueRef& queue, double seconds, Block handler) {
    DispatchTimerRef made = dispatch.dispatch_source_create(queue);
    dispatch.dispatch_source_set_timer(
        made, static_cast<std::uint64_t>(seconds * static_cast<double>(NSEC_PER_SEC)), 0);
    dispatch.dispatch_source_set_event_handler(made, std::move(handler));
    dispatch.dispatch_resume(made);
    return made;
  }

  ScriptedPlatform scripted;
  ScriptedDispatch& dispatch = scripted.dispatch;
  DispatchQueueRef serial = dispatch.dispatch_queue_create("one", QueueKind::serial);
  DispatchQueueRef other = dispatch.dispatch_queue_create("two", QueueKind::serial);
  std::vector<std::string> trace;
};

TEST_F(ScriptedDispatchTest, TimerFiresAtOnceAndThenAtItsTimesInOrderAcrossQueues) {
  const auto slow = timer(serial, 1.0, [&] { note("slow"); });
  const auto fast = timer(other, 0.4, [&] { note("fast"); });
  EXPECT_TRUE(trace.empty()) << "nothing runs before the test says so";
  scripted.runUntilIdle();
  EXPECT_THAT(trace, ElementsAre("slow@0.0", "fast@0.0"));
  trace.clear();
  scripted.advance(1.0);
  EXPECT_THAT(trace, ElementsAre("fast@0.4", "fast@0.8", "slow@1.0"));
  EXPECT_DOUBLE_EQ(elapsed(), 1.0);
}

TEST_F(ScriptedDispatchTest, FiringsMissedByALongHandlerMergeIntoOne) {
  bool first = true;
  const auto ticks = timer(serial, 1.0, [&] {
    note("begin");
    if (std::exchange(first, false)) scripted.advance(3.5);
    note("end");
  });
  const auto witness = timer(other, 2.0, [&] { note("witness"); });
  scripted.advance(5.0);
  EXPECT_THAT(trace, ElementsAre("begin@0.0", "witness@0.0", "witness@2.0", "end@3.5", "begin@3.5", "end@3.5",
                                 "begin@4.0", "end@4.0", "witness@4.0", "begin@5.0", "end@5.0"));
  EXPECT_EQ(dispatch.timers()[0].firings, 4u);
}

TEST_F(ScriptedDispatchTest, TimerWaitsForItsBusySerialQueueButNotOnAConcurrentOne) {
  const auto onSerial = timer(serial, 1.0, [&] { note("serial"); });
  const auto onGlobal = timer(dispatch.dispatch_get_global_queue(), 1.0, [&] { note("global"); });
  scripted.runUntilIdle();
  trace.clear();
  const auto busy = [&] { scripted.advance(1.5); };
  dispatch.dispatch_async(serial, busy);
  scripted.runUntilIdle();
  EXPECT_THAT(trace, ElementsAre("global@1.0", "serial@1.5"));
  trace.clear();
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), [&] {
    scripted.advance(1.0);
    note("block ends");
  });
  scripted.runUntilIdle();
  EXPECT_THAT(trace, ElementsAre("serial@2.0", "global@2.0", "block ends@2.5"));
}

TEST_F(ScriptedDispatchTest, HandlerMayCancelItsOwnTimerAndMakeAnother) {
  DispatchTimerRef second;
  DispatchTimerRef first = timer(serial, 1.0, [&] {
    note("first");
    dispatch.dispatch_source_cancel(first);
    first = nullptr;
    second = timer(serial, 0.5, [&] { note("second"); });
  });
  scripted.advance(1.0);
  EXPECT_THAT(trace, ElementsAre("first@0.0", "second@0.0", "second@0.5", "second@1.0"));
  EXPECT_EQ(dispatch.liveTimerCount(), 1u);
  second = nullptr;
  scripted.advance(5.0);
  EXPECT_EQ(trace.size(), 4u) << "a timer that nobody holds fires no more";
  EXPECT_TRUE(dispatch.timers()[1].cancelled);
}

TEST_F(ScriptedDispatchTest, CancelTakesBackAFiringThatStillWaits) {
  const DispatchTimerRef frames = timer(dispatch.dispatch_get_main_queue(), 0.03, [&] { note("frame"); });
  scripted.advance(1.0);
  EXPECT_EQ(dispatch.mainQueueLength(), 1u) << "missed firings merge while the main thread is blocked";
  dispatch.dispatch_source_cancel(frames);
  scripted.runLoop.drain();
  EXPECT_TRUE(trace.empty());
}

TEST_F(ScriptedDispatchTest, MainQueueRunsOnlyWhatWaitedWhenItIsDrained) {
  const auto main = dispatch.dispatch_get_main_queue();
  dispatch.dispatch_async(main, [&] {
    note("a");
    dispatch.dispatch_async(main, [&] { note("c"); });
  });
  dispatch.dispatch_async(main, [&] { note("b"); });
  scripted.advance(2.0);
  EXPECT_TRUE(trace.empty());
  EXPECT_TRUE(scripted.runLoop.drain());
  EXPECT_THAT(trace, ElementsAre("a@2.0", "b@2.0"));
  EXPECT_TRUE(scripted.runLoop.drain());
  EXPECT_FALSE(scripted.runLoop.drain());
  EXPECT_EQ(trace.back(), "c@2.0");
}

TEST_F(ScriptedDispatchTest, BlocksOfASerialQueueKeepTheirOrderAndNeverNest) {
  for (const char* name : {"a", "b"})
    dispatch.dispatch_async(serial, [this, name] {
      note(std::string(name) + "<");
      scripted.runUntilIdle();
      note(std::string(name) + ">");
    });
  dispatch.dispatch_async(other, [&] { note("x"); });
  scripted.runUntilIdle();
  EXPECT_THAT(trace, ElementsAre("a<@0.0", "x@0.0", "a>@0.0", "b<@0.0", "b>@0.0"));
}

TEST_F(ScriptedDispatchTest, SettingTheWallClockFiresNothing) {
  const auto ticks = timer(serial, 1.0, [&] { note("tick"); });
  scripted.runUntilIdle();
  scripted.clock.setAbsoluteTime(ScriptedClock::kStart - 1000);
  scripted.runUntilIdle();
  EXPECT_EQ(trace.size(), 1u);
  scripted.clock.advance(1.0);
  EXPECT_EQ(trace.size(), 2u) << "the clock itself drives timers too";
  EXPECT_DOUBLE_EQ(elapsed(), -999.0);
}

TEST_F(ScriptedDispatchTest, RunLoopServesOtherThreadsUntilStopped) {
  std::latch posted(1);
  std::thread worker([&] {
    dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [&] { posted.count_down(); });
    posted.wait();
    dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [&] { scripted.runLoop.stop(); });
  });
  scripted.runLoop.run();
  worker.join();
  EXPECT_TRUE(posted.try_wait());
}

}  // namespace
}  // namespace qbv
