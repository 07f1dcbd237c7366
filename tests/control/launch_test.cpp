// The launch duration.
#include <gtest/gtest.h>

#include "vitalscope/control/QBVLaunchManager.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

double nowMilliseconds(qbv::ScriptedPlatform& scripted) {
  return (scripted.clock.CFAbsoluteTimeGetCurrent() + qbv::kCFAbsoluteTimeIntervalSince1970) * 1000;
}

TEST(LaunchTest, DurationLastsFromProcessStartToTheFirstTurnOfTheMainQueue) {
  qbv::ScriptedPlatform scripted;
  scripted.task.setProcessStartTimeMilliseconds(nowMilliseconds(scripted) - 1250);
  QBVLaunchManager::askStartTime();
  scripted.advance(0.5);
  EXPECT_EQ(QBVLaunchManager::launchTime(), 0) << "the main queue has not turned yet";

  double heard = 0;
  QBVLaunchManager::setLaunchTimeReceiver([&](double seconds) { heard = seconds; });
  EXPECT_EQ(heard, 0);
  scripted.runLoop.drain();
  EXPECT_NEAR(QBVLaunchManager::launchTime(), 1.75, 1e-5);
  EXPECT_EQ(heard, QBVLaunchManager::launchTime());

  scripted.advance(10);
  QBVLaunchManager::askStartTime();
  scripted.runLoop.drain();
  EXPECT_NEAR(QBVLaunchManager::launchTime(), 1.75, 1e-5) << "measured once";

  double lateHeard = 0;
  QBVLaunchManager::setLaunchTimeReceiver([&](double seconds) { lateHeard = seconds; });
  EXPECT_EQ(lateHeard, QBVLaunchManager::launchTime());
}

TEST(LaunchTest, StartTimeIsKeptAfterTheFirstSuccessOnly) {
  qbv::ScriptedPlatform scripted;
  scripted.task.setProcessStartTimeMilliseconds(std::nullopt);
  EXPECT_EQ(QBVLaunchManager::processStartTime(), 0);
  scripted.task.setProcessStartTimeMilliseconds(1700000000000.5);
  EXPECT_EQ(QBVLaunchManager::processStartTime(), 1700000000000.5);
  scripted.task.setProcessStartTimeMilliseconds(1);
  EXPECT_EQ(QBVLaunchManager::processStartTime(), 1700000000000.5);
}

TEST(LaunchTest, UnknownStartTimeGivesTheTimeOfDay) {
  qbv::ScriptedPlatform scripted;
  scripted.task.setProcessStartTimeMilliseconds(std::nullopt);
  QBVLaunchManager::askStartTime();
  scripted.runLoop.drain();
  EXPECT_NEAR(QBVLaunchManager::launchTime(), nowMilliseconds(scripted) / 1000, 1e-3);
}

}  // namespace
