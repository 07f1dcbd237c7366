// Findings by CPU use.
#include "tests/hang/anr_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class ANRCPUTest : public ANRMonitorTest {};

TEST_F(ANRCPUTest, JumpIsAFindingWithoutALevelAndWithoutAReportFile) {
  setCPUPercent(5);
  start();
  ticksWhileAnswering(1);
  EXPECT_EQ(monitor->anrTimes(), 0);

  setCPUPercent(20);
  ticksWhileAnswering(1);
  EXPECT_EQ(monitor->anrTimes(), 1);
  EXPECT_EQ(monitor->anrLevel(), 0U);
  EXPECT_THAT(monitor->cpuUseageRecords(), ElementsAre("20%"));
  ASSERT_EQ(reportRequests(), 1U);
  EXPECT_THAT(sampleCommands().front(), testing::EndsWith("/quibapp_stuck__sample.hang"));
  EXPECT_EQ(reportsOfLevel(1), 0U);

  ticksWhileAnswering(3);
  EXPECT_EQ(monitor->anrTimes(), 1) << "steady use below the level is fine";
}

TEST_F(ANRCPUTest, JumpMustExceedTenPointsAndLevelSeventy) {
  setCPUPercent(9);
  start();
  for (int percent = 18; percent <= 63; percent += 9) {
    setCPUPercent(percent);
    ticksWhileAnswering(1);
  }
  setCPUPercent(70);
  ticksWhileAnswering(1);
  EXPECT_EQ(monitor->anrTimes(), 0);

  setCPUPercent(71);
  ticksWhileAnswering(1);
  EXPECT_EQ(monitor->anrTimes(), 1);
  EXPECT_THAT(monitor->cpuUseageRecords(), IsEmpty());

  setCPUPercent(82);
  ticksWhileAnswering(1);
  EXPECT_THAT(monitor->cpuUseageRecords(), ElementsAre("82%"));
}

TEST_F(ANRCPUTest, SteadyHighUseIsFoundEveryTickAndReportedEveryFiveSeconds) {
  setCPUPercent(80);
  start();
  ticksWhileAnswering(20);
  EXPECT_EQ(monitor->anrTimes(), 21);
  EXPECT_EQ(reportRequests(), 5U);  // at 0, 5, 10, 15 and 20 seconds
  EXPECT_THAT(monitor->cpuUseageRecords(), ElementsAre("80%")) << "the jump from nothing, once";
}

TEST_F(ANRCPUTest, HangSoonAfterACPUFindingIsReportedWhenFiveSecondsAreOver) {
  setCPUPercent(50);
  start();  // second 0: a jump
  ASSERT_EQ(reportRequests(), 1U);
  scripted.runLoop.drainAll();
  ticksWhileBlocked(4);  // a hang from second 1 on
  EXPECT_EQ(monitor->anrLevel(), 3U);
  EXPECT_EQ(reportRequests(), 1U);
  ticksWhileBlocked(1);
  EXPECT_EQ(reportRequests(), 2U);
  EXPECT_EQ(reportsOfLevel(4), 1U);
}

TEST_F(ANRCPUTest, CPUIsNotAskedWhileTheMainThreadHangs) {
  setCPUPercent(5);
  start();
  ticksWhileBlocked(2);
  setCPUPercent(40);
  ticksWhileBlocked(2);
  EXPECT_THAT(monitor->cpuUseageRecords(), IsEmpty());
  ticksWhileAnswering(1);  // compares with the figure from before the hang
  EXPECT_THAT(monitor->cpuUseageRecords(), ElementsAre("40%"));
  EXPECT_EQ(monitor->anrLevel(), 0U);
}

}  // namespace
