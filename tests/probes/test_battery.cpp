// The battery monitor on a scripted registry: capacity, charge and current are the test's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <thread>

#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/probes/QBVBatteryMonitor.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

class Observer : public qbv::Object, public QBVBatteryMonitorDelegate {
 public:
  void qbvBatteryMonitorPerMinPowerConsumption(double watts) override { seen.push_back(watts); }
  std::vector<double> seen;
};

class BatteryMonitorTest : public testing::Test {
 protected:
  BatteryMonitorTest() {
    QBVBatteryMonitor::setPowerReport([] { ++reports; });
    monitor->registerDelegate(observer);
  }

  void setBattery(std::int64_t milliamperes, std::int64_t millivolts, bool isPluggedIn = false,
                  const char* name = "BAT0") {
    scripted.devices.setEntry("IOPMPowerSource", name,
                              qbv::Value::Dictionary{{"AppleRawMaxCapacity", 4400},
                                                     {"AppleRawCurrentCapacity", 1100},
                                                     {"Amperage", milliamperes},
                                                     {"Voltage", millivolts},
                                                     {"TimeRemaining", 95},
                                                     {"IsCharging", milliamperes > 0},
                                                     {"ExternalConnected", isPluggedIn}});
  }
  void sample() { monitor->handleBatteryMonitor(); }

  qbv::ScriptedPlatform scripted;
  QBVBatteryMonitor* monitor = QBVBatteryMonitor::sharedInstance();
  std::shared_ptr<Observer> observer = std::make_shared<Observer>();
  inline static int reports = 0;
};

TEST_F(BatteryMonitorTest, ReportsWhatIsDrawnAboveTwentyWatts) {
  setBattery(-2500, 12000);
  sample();
  EXPECT_THAT(observer->seen, ElementsAre(30.0));
  EXPECT_EQ(reports, 1);

  setBattery(-2000, 10000);
  sample();
  EXPECT_EQ(reports, 1) << "20.0 W is not heavy";
  setBattery(-2001, 10000);
  sample();
  EXPECT_EQ(reports, 2);
  sample();
  EXPECT_EQ(reports, 3) << "at every sample";
  EXPECT_DOUBLE_EQ(observer->seen.back(), 20.01);
}

TEST_F(BatteryMonitorTest, NeitherChargingNorPowerFromOutsideIsReported) {
  setBattery(+5000, 12000);
  sample();
  setBattery(-5000, 12000, true);
  sample();
  EXPECT_THAT(observer->seen, ElementsAre(0.0, 60.0)) << "observers hear of it all the same";
  EXPECT_EQ(reports, 0);
  monitor->handleBatteryPower(std::nan(""));
  EXPECT_EQ(reports, 0);
}

TEST_F(BatteryMonitorTest, TakesEveryFieldOverAndMissingOnesAsNothing) {
  setBattery(-1500, 12345);
  sample();
  EXPECT_EQ(monitor->totalCapacity(), 4400);
  EXPECT_EQ(monitor->currentCharge(), 1100);
  EXPECT_DOUBLE_EQ(monitor->percentCharged(), 0.25);
  EXPECT_DOUBLE_EQ(monitor->amperage(), -1.5);
  EXPECT_DOUBLE_EQ(monitor->voltage(), 12.345);
  EXPECT_EQ(monitor->minutesRemaining(), 95);
  EXPECT_FALSE(monitor->isCharging());

  scripted.devices.setEntry("IOPMPowerSource", "BAT0", qbv::Value::Dictionary{{"FullyCharged", 1}});
  sample();
  EXPECT_TRUE(monitor->isFullyCharged());
  EXPECT_EQ(monitor->totalCapacity(), 0);
  EXPECT_EQ(monitor->amperage(), 0);
  EXPECT_TRUE(std::isnan(monitor->percentCharged()));
}

TEST_F(BatteryMonitorTest, TheLastReadableSourceDecides) {
  setBattery(0, 12000, false, "BAT0");
  setBattery(-3000, 10000, false, "BAT1");
  scripted.devices.setEntry("IOPMPowerSource", "BAT2", {});
  sample();
  EXPECT_THAT(observer->seen, ElementsAre(30.0));

  for (const char* gone : {"BAT0", "BAT1"}) scripted.devices.setEntry("IOPMPowerSource", gone, {});
  sample();
  EXPECT_THAT(observer->seen, ElementsAre(30.0, 30.0)) << "as it was last read";

  scripted.devices.setLookupFails(true);
  sample();
  EXPECT_THAT(observer->seen, SizeIs(2));
  EXPECT_EQ(scripted.devices.objectCount(), 0U) << "every handle is released";
}

TEST_F(BatteryMonitorTest, CallsWhoAnswersInOrderAndAsOftenAsRegistered) {
  monitor->registerDelegate(nullptr);
  monitor->registerDelegate(std::make_shared<qbv::Object>());
  monitor->registerDelegate(observer);
  const auto unused = std::make_shared<Observer>();
  monitor->setDelegate(unused);
  sample();
  EXPECT_THAT(observer->seen, ElementsAre(0.0, 0.0)) << "a machine without a battery draws nothing";
  EXPECT_THAT(unused->seen, IsEmpty());
  EXPECT_EQ(monitor->delegate(), unused);
}

TEST_F(BatteryMonitorTest, SamplesEveryTenSecondsWhileStarted) {
  monitor->stop();
  monitor->start();
  monitor->start();
  scripted.advance(30);
  EXPECT_THAT(observer->seen, SizeIs(4));
  EXPECT_THAT(scripted.dispatch.queueLabels(), ElementsAre(EndsWith(".battery.monitor")));
  monitor->stop();
  scripted.advance(30);
  EXPECT_THAT(observer->seen, SizeIs(4));
  monitor->start();
  scripted.runUntilIdle();
  EXPECT_THAT(observer->seen, SizeIs(5));
}

TEST_F(BatteryMonitorTest, OtherThreadsMayLookAndRegisterWhileSamplesRun) {
  std::atomic<bool> done{false};
  std::thread other([&] {
    while (!done) {
      EXPECT_LE(monitor->amperage(), 0);
      monitor->registerDelegate(std::make_shared<qbv::Object>());
      EXPECT_THAT(monitor->delegateObjects(), Contains(observer));
    }
  });
  for (int i = 0; i < 100; ++i) {
    setBattery(-10 * i, 12000);
    sample();
  }
  done = true;
  other.join();
  EXPECT_THAT(observer->seen, SizeIs(100));
}

}  // namespace
