// What the host's notifications start and stop.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/control/scripted_host.h"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/control/QBVitalscope.h"
#include "vitalscope/control/load.h"
#include "vitalscope/control/monitors.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kSignIn[] = "Noti_Login_FB_Login_Finished";
constexpr char kSignOut[] = "Noti_LogOut";
constexpr char kTermination[] = "Noti_KXProcessWillTerminate";

std::vector<std::string> done;

constexpr qbv::Monitor kTable[] = {
    {"always", false, [] { done.push_back("start always"); }, [] { done.push_back("stop always"); }},
    {"once", true, [] { done.push_back("once"); }, nullptr},
    {"logs", true, [] { done.push_back("start logs"); }, [] { done.push_back("stop logs"); }},
};

class ControllerTest : public testing::Test {
 protected:
  void post(const char* name) {
    scripted.notifications.defaultCenter().post(name);
    scripted.runUntilIdle();
  }
  void defineInternalUser() { host.defineUser(internalEmail.c_str()); }
  bool anrMonitorRuns() const { return QBVitalscopeANRMonitor::sharedInstance()->isStart(); }

  qbv::ScriptedPlatform scripted;
  ScriptedHost host{scripted.runtime};
  const std::string internalEmail = std::string("someone@") + qbv::mailDomain();
};

TEST_F(ControllerTest, SequencesPassTheGatesInOrder) {
  defineInternalUser();
  host.defineLogVersion(1);
  qbv::startMonitors(kTable);
  EXPECT_THAT(done, ElementsAre("start always", "once", "start logs"));

  done.clear();
  qbv::stopMonitors(kTable);
  EXPECT_THAT(done, ElementsAre("stop always", "stop logs"));

  done.clear();
  ScriptedHost::logVersion = 0;
  qbv::startMonitors(kTable);
  qbv::stopMonitors(kTable);
  EXPECT_THAT(done, ElementsAre("start always", "stop always"));

  done.clear();
  ScriptedHost::email = "someone@elsewhere.example";
  ScriptedHost::logVersion = 1;
  qbv::startMonitors(kTable);
  EXPECT_THAT(done, IsEmpty());
  qbv::stopMonitors(kTable);
  EXPECT_THAT(done, ElementsAre("stop always", "stop logs")) << "stopping asks nothing about the user";
}

TEST_F(ControllerTest, TableBeginsWithTheMonitorsOfEveryBuild) {
  ASSERT_FALSE(qbv::monitors().empty());
  EXPECT_FALSE(qbv::monitors().front().needsLogVersion);
  bool needsLogs = false;
  for (const qbv::Monitor& monitor : qbv::monitors()) {
    EXPECT_NE(monitor.start, nullptr) << monitor.name;
    EXPECT_TRUE(monitor.needsLogVersion || !needsLogs) << monitor.name << " stands after a log-version one";
    needsLogs = monitor.needsLogVersion;
  }
}

TEST_F(ControllerTest, LoadOnlyListensAndQueuesTheLaunchMeasurement) {
  qbv::load();
  EXPECT_EQ(scripted.dispatch.mainQueueLength(), 1U);
  EXPECT_EQ(scripted.dispatch.pendingCount(), 0U);
  EXPECT_THAT(scripted.dispatch.timers(), IsEmpty());
  EXPECT_THAT(scripted.dispatch.queueLabels(), IsEmpty());
  EXPECT_THAT(scripted.files.operations(), IsEmpty());
  const auto& centre = scripted.notifications.defaultCenter();
  for (const char* name :
       {kSignIn, kSignOut, kTermination, "performance_dashboard", "user_method_time_profile"})
    EXPECT_EQ(centre.observerCount(name), 1U) << name;
}

TEST_F(ControllerTest, HostsNotificationsStartAndStopOnTheGlobalQueue) {
  qbv::load();
  defineInternalUser();
  scripted.notifications.defaultCenter().post(kSignIn);
  EXPECT_EQ(ScriptedHost::emailQuestions, 0) << "nothing runs on the posting thread";
  scripted.runUntilIdle();
  EXPECT_TRUE(anrMonitorRuns());
  post(kSignIn);
  EXPECT_TRUE(anrMonitorRuns());
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 2U)
      << "in a build without logs nothing runs beside it but the timer of the reports";

  post(kSignOut);
  EXPECT_FALSE(anrMonitorRuns());
  post(kSignIn);
  EXPECT_TRUE(anrMonitorRuns());
  post(kTermination);
  EXPECT_FALSE(anrMonitorRuns());
}

TEST_F(ControllerTest, TheWarmUpOfReportsBeginsWithTheMonitors) {
  qbv::load();
  defineInternalUser();
  scripted.task.addThread(qbv::ScriptedTask::kMainThread);
  post(kSignIn);
  post(qbv::NSApplicationDidBecomeActiveNotification);
  for (int second = 0; second < 5; ++second) {
    scripted.advance(1);
    scripted.runLoop.drainAll();
  }
  scripted.advance(2);  // the first finding of all
  EXPECT_EQ(QBVitalscopeANRMonitor::sharedInstance()->anrTimes(), 1);
  EXPECT_THAT(scripted.files.contentsOfDirectory(scripted.files.home() +
                                                 "/Library/Logs/quibapp/Diagnostic/4242/freeze/light"),
              testing::SizeIs(1));
}

TEST_F(ControllerTest, NothingStartsForOthersAndStoppingIsHarmless) {
  qbv::load();
  host.defineLogVersion(1);
  host.defineUser("someone@elsewhere.example");
  post(kSignIn);
  EXPECT_THAT(scripted.dispatch.timers(), IsEmpty());
  post(kSignOut);
  post(kTermination);
  for (const qbv::ScriptedTimerInfo& timer : scripted.dispatch.timers())
    EXPECT_THAT(timer.queueLabel, testing::EndsWith(".apm.syncrecord")) << "more than the records of the day";
}

TEST_F(ControllerTest, WhereLogsAreKeptTheRecordsOfTheDayAreWrittenAndAskedFor) {
  qbv::load();
  defineInternalUser();
  host.defineLogVersion(1);
  scripted.runLoop.drain();
  post(kSignIn);
  const std::string folder = scripted.files.home() + "/Library/Logs/quibapp/Diagnostic/4242/freeze/freeze";
  const std::vector<std::string> names = scripted.files.contentsOfDirectory(folder);
  ASSERT_THAT(names, ElementsAre(testing::EndsWith("_inspect_info_record.hang")));
  const auto records = qbv::Value::fromJSON(scripted.files.read(folder + "/" + names.front()).value_or(""));
  ASSERT_TRUE(records);
  for (const char* const key : {"LaunchTime", "Memory", "CPU", "ANR"})
    EXPECT_FALSE((*records)[key].isNil()) << key << " is not plugged in";
  EXPECT_GT(std::stod(*(*records)["LaunchTime"].string()), 0);
  const std::vector<std::string> labels = scripted.dispatch.queueLabels();
  EXPECT_EQ(
      std::ranges::count_if(labels, [](const auto& label) { return label.ends_with(".qbv.lifecycle"); }), 2)
      << "one timer of the uploader's own and one of the start sequence";
}

TEST_F(ControllerTest, DebugSwitchesWorkAtAnyTimeAndEachTime) {
  qbv::load();
  QBVitalscope& controller = *QBVitalscope::sharedInstance();
  post("performance_dashboard");  // nothing is plugged in yet
  int dashboard = 0;
  int profiler = 0;
  controller.setDebugAction(QBVitalscope::DebugSwitch::dashboard, [&] { ++dashboard; });
  controller.setDebugAction(QBVitalscope::DebugSwitch::timeProfiler, [&] { ++profiler; });
  post("performance_dashboard");
  post("performance_dashboard");
  post("user_method_time_profile");
  EXPECT_EQ(dashboard, 2);
  EXPECT_EQ(profiler, 1);
  controller.notiPerformanceDebug({"something_else", {}});
  EXPECT_EQ(dashboard + profiler, 3);
}

TEST_F(ControllerTest, HostMayStopTheMonitorsWhenItResigns) {
  qbv::load();
  defineInternalUser();
  post(kSignIn);
  QBVitalscope::sharedInstance()->appLifeCycleResignActiveNotify({});
  EXPECT_TRUE(anrMonitorRuns());
  scripted.runUntilIdle();
  EXPECT_FALSE(anrMonitorRuns());
}

}  // namespace
