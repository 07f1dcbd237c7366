// Hangs: guards, levels, and how often they become reports.
#include "tests/hang/anr_fixture.h"

namespace {

using testing::ElementsAre;
using testing::Pair;
using testing::SizeIs;

class ANRHangTest : public ANRMonitorTest {};

TEST_F(ANRHangTest, MainThreadThatAnswersBetweenTicksIsNeverAFinding) {
  start();
  for (int tick = 0; tick < 30; ++tick) {
    ticksWhileAnswering(1);
    EXPECT_THAT(monitor->guardsArray(), SizeIs(1)) << "only the one just posted";
  }
  EXPECT_EQ(monitor->anrTimes(), 0);
  EXPECT_EQ(reportRequests(), 0U);
  EXPECT_TRUE(monitor->runTimeANRInfo().empty());
}

TEST_F(ANRHangTest, BlockFromBeforeTheFirstTickIsLightThenModerate) {
  start();
  EXPECT_EQ(monitor->anrTimes(), 0) << "one unanswered guard is no finding";

  scripted.advance(1);
  EXPECT_EQ(monitor->anrLevel(), 1U);
  EXPECT_EQ(reportRequests(), 1U);
  EXPECT_EQ(reportsOfLevel(1), 1U);

  scripted.advance(1);
  EXPECT_EQ(monitor->anrLevel(), 2U);
  EXPECT_EQ(reportRequests(), 1U) << "within five seconds of the one before";

  scripted.advance(0.49);
  scripted.runLoop.drainAll();
  scripted.advance(0.51);
  EXPECT_THAT(monitor->guardsArray(), SizeIs(1));
  EXPECT_EQ(monitor->anrTimes(), 2);
  EXPECT_THAT(monitor->runTimeANRInfo(),
              ElementsAre(Pair("QBVANR_LEVEL_Light", 1), Pair("QBVANR_LEVEL_Moderate", 1)));
}

TEST_F(ANRHangTest, BlockFromAfterTheFirstTickIsOneTickShorter) {
  start();
  scripted.runLoop.drainAll();

  scripted.advance(1);
  EXPECT_EQ(monitor->anrTimes(), 0);
  scripted.advance(1);
  EXPECT_EQ(monitor->anrLevel(), 1U);
  scripted.advance(0.51);
  scripted.runLoop.drainAll();
  scripted.advance(0.49);
  EXPECT_THAT(monitor->runTimeANRInfo(), ElementsAre(Pair("QBVANR_LEVEL_Light", 1)));
  EXPECT_EQ(reportsOfLevel(1), 1U);
}

TEST_F(ANRHangTest, LongBlockStaysAFreezeAndIsReportedEveryFiveSeconds) {
  start();
  ticksWhileBlocked(20);

  EXPECT_THAT(monitor->guardsArray(), SizeIs(10));
  EXPECT_EQ(monitor->anrLevel(), 5U);
  EXPECT_EQ(monitor->anrTimes(), 20);
  EXPECT_THAT(monitor->runTimeANRInfo(),
              ElementsAre(Pair("QBVANR_LEVEL_Freeze", 16), Pair("QBVANR_LEVEL_Heavier", 1),
                          Pair("QBVANR_LEVEL_Light", 1), Pair("QBVANR_LEVEL_Moderate", 1),
                          Pair("QBVANR_LEVEL_Severe", 1)));
  // At 1, 6, 11 and 16 seconds.
  EXPECT_EQ(reportRequests(), 4U);
  EXPECT_EQ(reportsOfLevel(1), 1U);
  EXPECT_EQ(reportsOfLevel(5), 3U);
  EXPECT_EQ(reportsOfLevel(2) + reportsOfLevel(3) + reportsOfLevel(4), 0U);

  scripted.runLoop.drainAll();
  scripted.advance(1);
  EXPECT_THAT(monitor->guardsArray(), SizeIs(0)) << "this tick's guard still met a full list";
  EXPECT_EQ(monitor->anrTimes(), 20);
}

TEST_F(ANRHangTest, ClockThatWasSetBackSilencesNothing) {
  start();
  ticksWhileBlocked(1);
  scripted.clock.setAbsoluteTime(scripted.clock.CFAbsoluteTimeGetCurrent() - 7200);
  ticksWhileBlocked(1);
  EXPECT_EQ(reportsOfLevel(1), 1U);
  EXPECT_EQ(reportsOfLevel(2), 1U);
  ticksWhileBlocked(4);
  EXPECT_EQ(reportRequests(), 2U) << "five seconds are counted from there";
}

TEST_F(ANRHangTest, SampleRunsNextToTheReportUnderItsId) {
  scripted.dates.setZone(0, "UTC");
  start();
  scripted.advance(1);

  const std::string reportId = "2024-01-15_12_01_01";
  const std::string folder = QBVitalscopeReport::sharedInstance()->sampleLogPath();
  EXPECT_THAT(sampleCommands(),
              ElementsAre("sample 4242 1 -file " + folder + "/quibapp_stuck_" + reportId + "_sample.hang"));
  const std::string light = QBVitalscopeReport::sharedInstance()->freezeStuckLogPath(1);
  const auto report = scripted.files.read(light + "/quibapp_stuck_" + reportId + ".hang");
  ASSERT_TRUE(report.has_value());
  EXPECT_THAT(*report, testing::HasSubstr("MainThread Block"));
  EXPECT_THAT(*report, testing::HasSubstr("{\"anrLevel\":1}"));
}

TEST_F(ANRHangTest, RefusedReportIsStillSampledUnderAnEmptyId) {
  QBVitalscopeReport::sharedInstance()->setStartTime(scripted.clock.CFAbsoluteTimeGetCurrent());
  start();
  scripted.advance(1);

  EXPECT_EQ(reportsOfLevel(1), 0U);
  ASSERT_EQ(reportRequests(), 1U);
  EXPECT_THAT(sampleCommands().front(), testing::EndsWith("/quibapp_stuck__sample.hang"));
}

TEST_F(ANRHangTest, BuildThatKeepsNoLogsWritesTheReportAndTakesNoSample) {
  keepsLogs = false;
  start();
  ticksWhileBlocked(3);
  EXPECT_EQ(reportsOfLevel(1), 1U);
  EXPECT_EQ(reportRequests(), 0U);
}

TEST_F(ANRHangTest, TicksThatFallDueDuringAReportAreMerged) {
  scripted.processes.setCallback([this](const std::string&) -> std::optional<std::string> {
    scripted.advance(2.5);
    return "";
  });
  start();
  scripted.advance(1);  // the first finding, whose sample lasts beyond two further ticks
  EXPECT_EQ(monitor->anrTimes(), 2) << "those two came as one";
  EXPECT_EQ(monitor->anrLevel(), 2U);
}

}  // namespace
