// Start and stop, sleep and wake, active and inactive.
#include <atomic>
#include <thread>

#include "tests/hang/anr_fixture.h"
#include "vitalscope/control/QBVTool.h"

namespace {

using testing::SizeIs;

class ANRLifecycleTest : public ANRMonitorTest {
 protected:
  // Firings of the timers that belong to the monitor.
  unsigned ticks() {
    unsigned ticks = 0;
    for (const qbv::ScriptedTimerInfo& timer : scripted.dispatch.timers())
      if (timer.queueLabel.ends_with(".mainthread.monitor")) ticks += timer.firings;
    return ticks;
  }
};

TEST_F(ANRLifecycleTest, StartsAndStopsOnceHoweverOftenAsked) {
  monitor->stop();
  start();
  start();
  EXPECT_EQ(ticks(), 1U);
  ticksWhileAnswering(2);
  EXPECT_EQ(ticks(), 3U);

  monitor->stop();
  monitor->stop();
  EXPECT_FALSE(monitor->isStart());
  ticksWhileAnswering(3);
  EXPECT_EQ(ticks(), 3U);

  monitor->setWatchdogInterval(0.25);
  start();
  EXPECT_TRUE(monitor->isStart());
  scripted.advance(1);
  EXPECT_EQ(ticks(), 3U + 5U) << "at once, then four times a second";
}

TEST_F(ANRLifecycleTest, TicksRunOnAQueueNamedAfterTheOrganisation) {
  start();
  std::string prefix;
  for (std::string rest = qbv::mailDomain(); !rest.empty();) {
    const std::size_t dot = rest.rfind('.');
    prefix += (dot == std::string::npos ? rest : rest.substr(dot + 1)) + ".";
    rest.resize(dot == std::string::npos ? 0 : dot);
  }
  EXPECT_THAT(scripted.dispatch.queueLabels(), testing::Contains(prefix + "mainthread.monitor"));
}

TEST_F(ANRLifecycleTest, FindsNothingWhileTheHostIsInactive) {
  setCPUPercent(95);
  hostResignsActive();
  start();
  ticksWhileBlocked(10);
  EXPECT_EQ(ticks(), 11U);
  EXPECT_EQ(scripted.dispatch.mainQueueLength(), 0U) << "no guard is posted";
  EXPECT_THAT(monitor->guardsArray(), SizeIs(0));
  EXPECT_EQ(monitor->anrTimes(), 0);
  EXPECT_EQ(reportRequests(), 0U);

  hostBecomesActive();
  ticksWhileBlocked(2);
  EXPECT_EQ(monitor->anrLevel(), 1U);
}

TEST_F(ANRLifecycleTest, SleepDuringAHangStopsWithoutAReportAndWakeGoesOn) {
  start();
  ticksWhileBlocked(2);
  ASSERT_EQ(monitor->anrTimes(), 2);
  machineWillSleep();
  ticksWhileBlocked(8);
  EXPECT_FALSE(monitor->isStart());
  EXPECT_EQ(monitor->anrTimes(), 2);
  EXPECT_EQ(reportRequests(), 1U);

  machineDidWake();
  EXPECT_TRUE(monitor->isStart());
  scripted.runUntilIdle();
  EXPECT_THAT(monitor->guardsArray(), SizeIs(4)) << "the three from before the sleep and a new one";
  EXPECT_EQ(monitor->anrLevel(), 3U);
  EXPECT_EQ(reportRequests(), 2U);
}

TEST_F(ANRLifecycleTest, WakeStartsAMonitorThatWasNotRunning) {
  machineDidWake();
  scripted.runUntilIdle();
  EXPECT_TRUE(monitor->isStart());
  EXPECT_EQ(ticks(), 1U);
}

TEST_F(ANRLifecycleTest, RestartWhileATickStillReportsDoesNotRunASecondTickBesideIt) {
  bool restarted = false;
  scripted.processes.setCallback([&](const std::string&) -> std::optional<std::string> {
    if (!restarted) {
      restarted = true;
      monitor->stop();
      start();
      scripted.advance(1);
    }
    return "";
  });
  start();
  scripted.advance(1);
  ASSERT_TRUE(restarted);
  EXPECT_EQ(monitor->anrTimes(), 1);
  ticksWhileBlocked(1);
  EXPECT_EQ(monitor->anrTimes(), 2) << "the new timer goes on afterwards";
}

TEST_F(ANRLifecycleTest, OtherThreadsMayLookAndSwitchWhileTicksRun) {
  start();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      const auto records = monitor->runTimeANRInfo();
      const auto guards = monitor->guardsArray();
      const auto jumps = monitor->cpuUseageRecords();
      EXPECT_LE(records.size(), 5U);
      EXPECT_LE(guards.size(), 10U);
      EXPECT_LE(jumps.size(), 400U);
    }
  });
  std::thread controller([&] {
    while (!done) {
      monitor->stop();
      machineWillSleep();
      machineDidWake();
      monitor->start();
    }
  });
  for (int tick = 0; tick < 200; ++tick) {
    setCPUPercent(tick % 2 == 0 ? 5 : 60);
    if (tick % 10 < 5) scripted.runLoop.drainAll();
    scripted.advance(1);
  }
  done = true;
  reader.join();
  controller.join();

  const std::int64_t before = monitor->anrTimes();
  EXPECT_TRUE(monitor->isStart());
  ticksWhileBlocked(3);
  EXPECT_GT(monitor->anrTimes(), before) << "the monitor outlives the quarrel";
}

TEST_F(ANRLifecycleTest, NothingCountsAsHungBeforeTheMainLoopWasSeen) {
  scripted.runLoop.setMainLoopSeen(false);
  const std::size_t logged = scripted.log.messages().size();
  start();
  ticksWhileBlocked(8);
  EXPECT_EQ(scripted.log.messages().size(), logged);
  ticksWhileBlocked(30);
  EXPECT_EQ(scripted.log.messages().size(), logged + 1) << "said once";
  EXPECT_THAT(monitor->guardsArray(), SizeIs(0));
  EXPECT_FALSE(scripted.runLoop.drain()) << "nothing was posted";
  EXPECT_EQ(monitor->anrTimes(), 0);

  scripted.runLoop.setMainLoopSeen(true);
  ticksWhileBlocked(3);
  EXPECT_EQ(monitor->anrLevel(), 2U);
  EXPECT_EQ(reportRequests(), 1U);
}

}  // namespace
