// The memory monitor on a scripted platform: time, footprint and the host's answers are the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "vitalscope/control/load.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

constexpr char kMeetingLeft[] = "QBV_CMD_CONF_LEAVE_COMPLETE";

class Observer : public qbv::Object, public QBVMemoryMonitorDelegate {
 public:
  void qbvMemoryUsage(double megabytes) override { seen.push_back(megabytes); }
  std::vector<double> seen;
};

// A log-keeping build, past every warm-up; the host's adapter appears when the test defines it.
class MemoryMonitorTest : public testing::Test {
 protected:
  MemoryMonitorTest() {
    qbv::ClassDefinition(scripted.runtime, "NSBundle")
        .classMethod(
            "isLogVersion", +[](qbv::id, qbv::SEL) -> bool { return true; });
    scripted.task.addThread(qbv::ScriptedTask::kMainThread);
    qbv::load();
    QBVitalscopeReport::sharedInstance();
    scripted.advance(60);
    monitor = QBVitalscopeMemoryMonitor::sharedInstance();
  }

  void defineHostWithCallStatus() {
    callStatus = 0;
    adapter = qbv::ClassDefinition(scripted.runtime, "HostHelper")
                  .method(
                      "getCallStatus",
                      +[](qbv::id, qbv::SEL) -> int {
                        ++statusQuestions;
                        return callStatus;
                      })
                  .instance();
    qbv::ClassDefinition(scripted.runtime, "QBKXAppInterfaceAdapter")
        .classMethod(
            "sharedKXAppHelperInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return adapter; });
  }
  void start() {
    monitor->start();
    scripted.runUntilIdle();
  }
  void ticksAt(double megabytes, int count = 1) {
    scripted.task.setFootprintMegabytes(megabytes);
    for (int tick = 0; tick < count; ++tick) scripted.advance(1);
  }
  void post(const char* name, const qbv::Value& userInfo = {}) {
    scripted.notifications.defaultCenter().post(name, userInfo);
  }
  void enableLeakChecks(const qbv::Value& value = true) {
    post("user_leaks_detect", qbv::Value::Dictionary{{"enable_leaks_detect", value}});
  }
  std::vector<std::string> filesIn(const std::string& folder) {
    return scripted.files.contentsOfDirectory(QBVitalscopeReport::sharedInstance()->localLogFolderRootPath() +
                                              folder);
  }
  std::vector<std::string> reports() { return filesIn("/app_memory_oversize"); }
  std::string report(std::size_t index) {
    return scripted.files
        .read(QBVitalscopeReport::sharedInstance()->localLogFolderRootPath() + "/app_memory_oversize/" +
              reports().at(index))
        .value_or("");
  }

  qbv::ScriptedPlatform scripted;
  QBVitalscopeMemoryMonitor* monitor = nullptr;
  inline static qbv::id adapter = nullptr;
  inline static int callStatus = 0;
  inline static int statusQuestions = 0;
};

TEST_F(MemoryMonitorTest, ExactlyOneGigabyteIsAFinding) {
  start();
  ticksAt(1023.999, 3);
  EXPECT_EQ(monitor->memoryUsage(), 0);
  EXPECT_EQ(monitor->memoryBacktrace(), std::nullopt);
  EXPECT_THAT(reports(), IsEmpty());

  ticksAt(1024.0);
  EXPECT_EQ(monitor->memoryUsage(), 1024.0);
  EXPECT_EQ(monitor->maxMemoryUsage(), 1024.0);
  ASSERT_TRUE(monitor->memoryBacktrace().has_value())
      << "a sample that equals the peak takes the stacks, too";
  ASSERT_THAT(reports(), SizeIs(1));
  EXPECT_THAT(reports()[0], HasSubstr("quibapp_overmemory_"));
  EXPECT_THAT(report(0), AllOf(HasSubstr("APP Memory Oversize"), HasSubstr(*monitor->memoryBacktrace()),
                               HasSubstr("AppMemoryRecords")));
}

TEST_F(MemoryMonitorTest, StacksAreReplacedAtNewAndEqualPeaksOnly) {
  start();
  ticksAt(1500);
  const auto atFirst = monitor->memoryBacktrace();
  scripted.task.addThread(17);
  ticksAt(1499);
  EXPECT_EQ(monitor->memoryBacktrace(), atFirst);
  EXPECT_EQ(monitor->memoryUsage(), 1499);
  EXPECT_EQ(monitor->maxMemoryUsage(), 1500);
  ticksAt(1500);
  const auto atEqual = monitor->memoryBacktrace();
  EXPECT_NE(atEqual, atFirst);
  scripted.task.addThread(18);
  ticksAt(1600);
  EXPECT_NE(monitor->memoryBacktrace(), atEqual);
  EXPECT_EQ(monitor->maxMemoryUsage(), 1600);
}

TEST_F(MemoryMonitorTest, OneReportAnHourCarriesTheStacksOfTheHighestPeak) {
  start();
  ticksAt(1500);
  ASSERT_THAT(reports(), SizeIs(1));
  scripted.task.addThread(4711);
  ticksAt(2000);
  const auto atPeak = monitor->memoryBacktrace();
  EXPECT_THAT(report(0), Not(HasSubstr(*atPeak))) << "one thread less";
  scripted.task.removeThread(4711);
  ticksAt(1100, 3598);
  EXPECT_THAT(reports(), SizeIs(1)) << "one second is missing";
  ticksAt(1100);
  ASSERT_THAT(reports(), SizeIs(2));
  const bool secondIsLater = reports()[0] < reports()[1];
  EXPECT_THAT(report(secondIsLater ? 1 : 0), HasSubstr(*atPeak)) << "older than this tick";
}

TEST_F(MemoryMonitorTest, MeetingHoldsBackFindingsButNotSamples) {
  defineHostWithCallStatus();
  const auto observer = std::make_shared<Observer>();
  monitor->registerDelegate(observer);
  callStatus = 2;
  scripted.task.setFootprintMegabytes(3000);
  start();
  ticksAt(3000, 2);
  EXPECT_THAT(observer->seen, ElementsAre(3000, 3000, 3000));
  EXPECT_THAT(monitor->realTimeMemoryArray(), ElementsAre("3000"));
  EXPECT_EQ(monitor->memoryUsage(), 0);
  EXPECT_EQ(monitor->maxMemoryUsage(), 1024);
  EXPECT_EQ(monitor->memoryBacktrace(), std::nullopt);
  EXPECT_THAT(reports(), IsEmpty());

  callStatus = 3;
  ticksAt(3000);
  EXPECT_THAT(reports(), SizeIs(1)) << "any other status is no meeting";
  EXPECT_EQ(statusQuestions, 4) << "the host is asked at every tick";
}

TEST_F(MemoryMonitorTest, HostThatCannotTellCountsAsOutsideOfMeetings) {
  EXPECT_FALSE(QBVitalscopeMemoryMonitor::inMeetingStatus());
  adapter = nullptr;
  qbv::ClassDefinition(scripted.runtime, "QBKXAppInterfaceAdapter")
      .classMethod(
          "sharedKXAppHelperInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return adapter; });
  EXPECT_FALSE(QBVitalscopeMemoryMonitor::inMeetingStatus());
  defineHostWithCallStatus();
  callStatus = 2;
  EXPECT_TRUE(QBVitalscopeMemoryMonitor::inMeetingStatus()) << "looked for anew until it is there";
  adapter = nullptr;
  EXPECT_TRUE(QBVitalscopeMemoryMonitor::inMeetingStatus()) << "kept once found";
}

TEST_F(MemoryMonitorTest, ObserversAreCalledAsOftenAsTheyRegistered) {
  const auto once = std::make_shared<Observer>();
  const auto twice = std::make_shared<Observer>();
  monitor->registerDelegate(twice);
  monitor->registerDelegate(nullptr);
  monitor->registerDelegate(std::make_shared<qbv::Object>());
  monitor->registerDelegate(once);
  monitor->registerDelegate(twice);
  EXPECT_THAT(monitor->delegateObjects(), SizeIs(4));
  start();
  ticksAt(20.25);
  EXPECT_THAT(once->seen, ElementsAre(0, 20.25));
  EXPECT_THAT(twice->seen, ElementsAre(0, 0, 20.25, 20.25));
}

TEST_F(MemoryMonitorTest, ObserverMayRegisterAnotherAndStopTheMonitor) {
  struct Meddler : Observer {
    explicit Meddler(QBVitalscopeMemoryMonitor* which) : monitor(which) {}
    void qbvMemoryUsage(double) override {
      monitor->registerDelegate(added);
      monitor->stop();
    }
    QBVitalscopeMemoryMonitor* monitor;
    std::shared_ptr<Observer> added = std::make_shared<Observer>();
  };
  const auto meddler = std::make_shared<Meddler>(monitor);
  monitor->registerDelegate(meddler);
  start();
  ticksAt(5, 3);
  EXPECT_FALSE(monitor->isStart());
  EXPECT_THAT(meddler->added->seen, IsEmpty());
}

TEST_F(MemoryMonitorTest, KeepsOneSampleAMinuteAndAnHourOfThem) {
  start();
  EXPECT_THAT(monitor->realTimeMemoryArray(), ElementsAre("0"));
  ticksAt(1187.4 - 700, 59);
  EXPECT_THAT(monitor->realTimeMemoryArray(), SizeIs(1));
  ticksAt(487.4);
  ticksAt(487.6, 60);
  EXPECT_THAT(monitor->realTimeMemoryArray(), ElementsAre("0", "487", "488"));
  EXPECT_EQ(monitor->inOneHourMemoryUsageRecords(),
            R"({"memoryRecords":["0","487","488"],"timeInterval":60})");

  for (int minute = 3; minute < 59; ++minute) ticksAt(minute, 60);
  EXPECT_THAT(monitor->readInOneHourMemoryArray(), SizeIs(59));
  EXPECT_EQ(monitor->readInOneHourMemoryArray().front(), "0");
  ticksAt(59, 60);
  EXPECT_THAT(monitor->readInOneHourMemoryArray(), SizeIs(59));
  EXPECT_EQ(monitor->readInOneHourMemoryArray().front(), "487");
  EXPECT_EQ(monitor->readInOneHourMemoryArray().back(), "59");
  EXPECT_THAT(monitor->realTimeMemoryArray(), SizeIs(60));
}

TEST_F(MemoryMonitorTest, JSONTextOfADictionaryOrNothing) {
  using Dictionary = qbv::Value::Dictionary;
  EXPECT_EQ(QBVitalscopeMemoryMonitor::dictToString(Dictionary{{"a", 1}}), R"({"a":1})");
  EXPECT_EQ(QBVitalscopeMemoryMonitor::dictToString(Dictionary{}), "");
  EXPECT_EQ(QBVitalscopeMemoryMonitor::dictToString({}), "");
  EXPECT_EQ(QBVitalscopeMemoryMonitor::dictToString(Dictionary{{"a", qbv::Value::Date{}}}), "");
  EXPECT_EQ(monitor->inOneHourMemoryUsageRecords(), R"({"memoryRecords":[],"timeInterval":60})");
}

TEST_F(MemoryMonitorTest, StartsAndStopsOnceHoweverOftenAsked) {
  const auto observer = std::make_shared<Observer>();
  monitor->registerDelegate(observer);
  monitor->stop();
  start();
  start();
  ticksAt(7, 2);
  EXPECT_THAT(observer->seen, SizeIs(3));
  monitor->stop();
  monitor->stop();
  ticksAt(7, 5);
  EXPECT_THAT(observer->seen, SizeIs(3));
  start();
  EXPECT_THAT(observer->seen, SizeIs(4));
  EXPECT_THAT(monitor->realTimeMemoryArray(), SizeIs(1)) << "the samples survive";
  EXPECT_THAT(scripted.dispatch.queueLabels(), testing::Contains(testing::EndsWith(".appmemory.monitor")));
}

TEST_F(MemoryMonitorTest, LeakCheckRunsWhenEnabledAndEverySixHoursAtMost) {
  scripted.processes.answer("leaks", "12 leaks found");
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), IsEmpty());
  enableLeakChecks();
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), ElementsAre("leaks 4242"))
      << "before the notification is over";
  scripted.runUntilIdle();
  EXPECT_THAT(filesIn("/leaks"), SizeIs(1));

  scripted.advance(6 * 3600 - 1);
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), SizeIs(1));
  scripted.advance(1);
  enableLeakChecks(false);
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), SizeIs(1));
  enableLeakChecks("YES");
  post("user_leaks_detect");
  EXPECT_FALSE(monitor->enableLeaksDetect()) << "a missing value switches it off";
  enableLeakChecks(1);
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), SizeIs(2));
}

TEST_F(MemoryMonitorTest, EmptyLeakOutputLeavesNoFileAndStartsTheWaitAnew) {
  enableLeakChecks();
  post(kMeetingLeft);
  scripted.runUntilIdle();
  EXPECT_THAT(filesIn("/leaks"), IsEmpty());
  post(kMeetingLeft);
  EXPECT_THAT(scripted.processes.commandLines(), SizeIs(1));
}

TEST_F(MemoryMonitorTest, OtherThreadsMayLookAndSwitchWhileTicksRun) {
  start();
  std::atomic<bool> done{false};
  std::thread reader([&] {
    while (!done) {
      const auto hour = monitor->readInOneHourMemoryArray();
      const auto all = monitor->realTimeMemoryArray();
      EXPECT_LE(hour.size(), 59U);
      EXPECT_GE(all.size(), hour.size());
      EXPECT_THAT(monitor->inOneHourMemoryUsageRecords(), HasSubstr("\"timeInterval\":60"));
      EXPECT_THAT(monitor->memoryBacktrace().value_or(""), Not(HasSubstr("Fail to get information of all")));
    }
  });
  std::thread controller([&] {
    while (!done) {
      monitor->registerDelegate(std::make_shared<qbv::Object>());
      monitor->stop();
      monitor->start();
    }
  });
  for (int tick = 0; tick < 200; ++tick) {
    scripted.task.setFootprintMegabytes(900 + tick);
    scripted.advance(30);
  }
  done = true;
  reader.join();
  controller.join();
  EXPECT_TRUE(monitor->isStart());
  ticksAt(4000, 1);
  EXPECT_EQ(monitor->maxMemoryUsage(), 4000);
}

}  // namespace
