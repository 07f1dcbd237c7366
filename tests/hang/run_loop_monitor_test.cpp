// Busy stretches of the main loop, and what the monitor's thread says of them.
#include <thread>

#include "tests/hang/run_loop_fixture.h"

namespace {

using qbv::TimeValue;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::Eq;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

constexpr char kHeading[] = "QBKorvaneANRMonitor_RunLoop: \n";
constexpr char kSame[] = "QBKorvaneANRMonitor_RunLoop same call stack";

TEST_F(RunLoopMonitorTest, IsSilentAndWithoutAThreadUntilItIsStarted) {
  setCPUPercent(100);
  scripted.runLoop.didWake();
  scripted.advance(10);
  EXPECT_THAT(scripted.dispatch.threadNames(), IsEmpty());
  EXPECT_EQ(scripted.runLoop.observerCount(), 0u);
  EXPECT_THAT(logged(), IsEmpty());
  EXPECT_EQ(monitor->m_monitorThread(), nullptr);
  EXPECT_EQ(monitor->eventHandler(), nullptr);
}

TEST_F(RunLoopMonitorTest, StretchIsFoundByACheckAfterItsFirstTwoSecondsAndBeforeItsEnd) {
  start();
  int foundOfSlightlyLong = 0;
  for (double afterCheck = 0.05; afterCheck < 1; afterCheck += 0.1) {
    EXPECT_EQ(findingsOfStretch(afterCheck, 1.9), 0u) << afterCheck;
    foundOfSlightlyLong += findingsOfStretch(afterCheck, 2.1) != 0 ? 1 : 0;
    EXPECT_EQ(findingsOfStretch(afterCheck, 3.0), 1u) << afterCheck;
    EXPECT_EQ(findingsOfStretch(afterCheck, 7.0), 5u) << afterCheck;
  }
  EXPECT_EQ(foundOfSlightlyLong, 1) << "of ten, as the check comes once in ten times 0.1 seconds";
}

TEST_F(RunLoopMonitorTest, PassesThatDoNotSleepAreOneStretch) {
  start();
  for (int pass = 0; pass < 6; ++pass) {
    scripted.runLoop.tell(qbv::kCFRunLoopBeforeTimers);
    scripted.runLoop.tell(qbv::kCFRunLoopBeforeSources);
    scripted.advance(0.45);
  }
  EXPECT_THAT(logged(), IsEmpty());
  scripted.advance(0.5);
  EXPECT_THAT(logged(), SizeIs(1)) << "at 3 seconds";
}

TEST_F(RunLoopMonitorTest, ExitEndsAStretchAndEntryResumesTheTimeOfTheLastSleep) {
  start();
  scripted.runLoop.didWake();
  scripted.advance(1.5);
  scripted.runLoop.tell(qbv::kCFRunLoopExit);
  scripted.advance(5);
  EXPECT_THAT(logged(), IsEmpty()) << "outside of the loop";

  scripted.runLoop.didWake();
  scripted.runLoop.willWait();
  scripted.advance(1.9);
  scripted.runLoop.tell(qbv::kCFRunLoopEntry);
  scripted.runLoop.tell(qbv::kCFRunLoopBeforeTimers);
  scripted.advance(1);
  EXPECT_THAT(logged(), SizeIs(1)) << "busy now, and that is the time there is";
}

// The begin observer is called before all others and the end observer after them, whoever came first.
TEST_F(RunLoopMonitorTest, WorkOfOtherObserversBelongsToTheStretch) {
  static qbv::ScriptedPlatform* platform = &scripted;
  const auto work = [](qbv::CFRunLoopObserverRef, qbv::CFRunLoopActivity, void*) { platform->advance(1.2); };
  const auto add = [&](std::int64_t order) {
    scripted.runLoop.CFRunLoopAddObserver(
        scripted.runLoop.CFRunLoopObserverCreate(qbv::kCFRunLoopAfterWaiting | qbv::kCFRunLoopBeforeWaiting,
                                                 true, order, work, nullptr),
        qbv::kCFRunLoopCommonModes);
  };
  add(std::numeric_limits<std::int64_t>::min() + 1);
  start();
  add(std::numeric_limits<std::int64_t>::max() - 1);
  scripted.runLoop.tell(qbv::kCFRunLoopAfterWaiting);   // 2.4 seconds
  scripted.runLoop.tell(qbv::kCFRunLoopBeforeWaiting);  // 2.4 more
  EXPECT_THAT(logged(), SizeIs(2)) << "at 3 and at 4 seconds";
  scripted.advance(5);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(RunLoopMonitorTest, EventIsTimedEvenWhereTheLoopIsNot) {
  start();
  QBVitalscopeANRMonitor_RunLoop::signalEventStart();
  scripted.advance(3.5);
  QBVitalscopeANRMonitor_RunLoop::signalEventEnd();
  EXPECT_THAT(logged(), SizeIs(1));
  scripted.advance(5);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(RunLoopMonitorTest, ClockThatGoesBackMakesNoStretchLong) {
  start();
  scripted.runLoop.didWake();
  QBVitalscopeANRMonitor_RunLoop::signalEventStart();
  scripted.clock.setAbsoluteTime(scripted.clock.CFAbsoluteTimeGetCurrent() - 3600);
  scripted.advance(60);
  EXPECT_THAT(logged(), IsEmpty());
}

TEST_F(RunLoopMonitorTest, IdenticalTextIsNotRepeatedAndAnotherIs) {
  start();
  scripted.runLoop.didWake();
  scripted.advance(4);
  const auto first = logged();
  ASSERT_THAT(first, SizeIs(2));
  EXPECT_THAT(first[0], AllOf(StartsWith(kHeading), HasSubstr("0x0000000100000300")));
  EXPECT_EQ(first[1], kSame);
  EXPECT_EQ(kHeading + monitor->reportInfo(), first[0]);

  scripted.task.setFootprintMegabytes(321);  // stands in the heading of the main thread's block
  scripted.advance(2);
  const auto second = logged();
  ASSERT_THAT(second, SizeIs(2));
  EXPECT_THAT(second[0], AllOf(StartsWith(kHeading), HasSubstr("321")));
  EXPECT_EQ(second[1], kSame);
}

TEST_F(RunLoopMonitorTest, BusyProcessIsLoggedAtEveryCheckThoughTheMainThreadSleeps) {
  setCPUPercent(70);
  start();
  scripted.runLoop.willWait();
  scripted.advance(3);
  EXPECT_THAT(logged(), IsEmpty());
  setCPUPercent(71);
  scripted.advance(3);
  EXPECT_THAT(logged(), ElementsAre(StartsWith(kHeading), Eq(kSame), Eq(kSame)));
}

TEST_F(RunLoopMonitorTest, SecondStartWatchesTwice) {
  start();
  start();
  EXPECT_EQ(scripted.runLoop.observerCount(), 4u);
  EXPECT_THAT(scripted.dispatch.threadNames(), ElementsAre("quib run loop", "quib run loop"));
  scripted.runLoop.didWake();
  scripted.advance(3);
  EXPECT_THAT(logged(), ElementsAre(StartsWith(kHeading), Eq(kSame))) << "one from each thread";
}

TEST_F(RunLoopMonitorTest, StartOnAThreadWithoutALoopObservesNone) {
  scripted.runLoop.setOnMainThread(false);
  start();
  EXPECT_EQ(scripted.runLoop.observerCount(), 0u);
  setCPUPercent(90);
  scripted.advance(2);
  EXPECT_THAT(logged(), SizeIs(2)) << "the thread watches all the same";
}

TEST_F(RunLoopMonitorTest, DifferencesAreMicroseconds) {
  EXPECT_EQ(monitor->diffTime({10, 999'999}, {11, 1}), 2u);
  EXPECT_EQ(monitor->diffTime({10, 1}, {13, 500'000}), 3'499'999u);
  EXPECT_EQ(monitor->diffTime({10, 1}, {4'000'000'010, 1}), 4'000'000'000'000'000u);
}

// For the thread sanitizer: the loop's thread writes while the monitor's reads.
TEST_F(RunLoopMonitorTest, LoopTurnsWhileTheMonitorLooks) {
  start();
  std::jthread loop([this](const std::stop_token& over) {
    while (!over.stop_requested()) {
      scripted.runLoop.didWake();
      QBVitalscopeANRMonitor_RunLoop::signalEventStart();
      QBVitalscopeANRMonitor_RunLoop::signalEventEnd();
      scripted.runLoop.willWait();
    }
  });
  scripted.advance(200);
  EXPECT_THAT(logged(), Each(StartsWith("QBKorvaneANRMonitor_RunLoop")));
}

}  // namespace
