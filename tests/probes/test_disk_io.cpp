// The disk monitor on a scripted registry of drives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/probes/QBVIOMonitor.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;

qbv::Value statistics(qbv::Value::Dictionary counters) {
  return qbv::Value::Dictionary{{"Statistics", std::move(counters)}};
}

class DiskMonitorTest : public testing::Test {
 protected:
  void setDrive(const char* name, const qbv::Value& properties) {
    scripted.devices.setEntry("IOBlockStorageDriver", name, properties);
  }
  void setDrive(const char* name, std::int64_t read, std::int64_t written) {
    setDrive(name, statistics({{"Bytes (Read)", read}, {"Bytes (Write)", written}}));
  }
  static std::vector<std::uint64_t> fields(const io_stats& stats) {
    return {stats.bytes_delta, stats.bytes_prev, stats.bytes, stats.bsd_bytes_prev, stats.bsd_bytes};
  }

  qbv::ScriptedPlatform scripted;
  QBVIOMonitor* monitor = QBVIOMonitor::sharedInstance();
};

TEST_F(DiskMonitorTest, CountersAddUpWhatIsThereAndTouchNothingElse) {
  setDrive("both", 1000, 10);
  setDrive("read only", statistics({{"Bytes (Read)", 500}}));
  setDrive("no statistics", qbv::Value::Dictionary{{"Model", "x"}});
  setDrive("no dictionary", qbv::Value::Dictionary{{"Statistics", "Bytes (Read)"}});
  setDrive("unreadable", qbv::Value());
  qbv::IOIterator drives = 0;
  ASSERT_EQ(
      scripted.devices.IOServiceGetMatchingServices(qbv::IOServiceMatching("IOBlockStorageDriver"), drives),
      qbv::KERN_SUCCESS);
  io_stats read{1, 2, 3, 4, 5};
  io_stats written{1, 2, 3, 4, 5};
  for (int pass = 0; pass < 2; ++pass) {
    getDISKcounters(drives, &read, &written);
    EXPECT_THAT(fields(read), ElementsAre(1, 2, 1500, 4, 5)) << "pass " << pass;
    EXPECT_THAT(fields(written), ElementsAre(1, 2, 10, 4, 5));
  }
  EXPECT_EQ(scripted.devices.objectCount(), 1U) << "entries are released, the iterator stays";
  getDISKcounters(0, &read, &written);
  EXPECT_EQ(read.bytes + written.bytes, 0U) << "no drives at all";
}

TEST_F(DiskMonitorTest, SamplesEverySecondAndTellsWhatChanged) {
  setDrive("vda", 4096, 512);
  scripted.devices.setDiskIO(qbv::ProcessDiskIO{100, 10});
  EXPECT_EQ(monitor->drivelist(), 0U);
  monitor->start();
  monitor->start();
  scripted.runUntilIdle();
  EXPECT_THAT(fields(monitor->i_dsk()), ElementsAre(0, 0, 4096, 0, 100));
  EXPECT_THAT(fields(monitor->o_dsk()), ElementsAre(0, 0, 512, 0, 10));
  EXPECT_THAT(scripted.dispatch.queueLabels(), ElementsAre(EndsWith(".qbvio.monitor")));

  setDrive("vda", 5096, 512);
  scripted.devices.setDiskIO(std::nullopt);
  scripted.advance(1);
  EXPECT_THAT(fields(monitor->i_dsk()), ElementsAre(1000, 4096, 5096, 100, 0));
  EXPECT_THAT(fields(monitor->o_dsk()), ElementsAre(0, 512, 512, 10, 0));
}

TEST_F(DiskMonitorTest, DrivesComeAndGo) {
  monitor->setWatchdogInterval(0.5);
  monitor->start();
  setDrive("late", 100, 0);
  scripted.advance(1);
  EXPECT_EQ(monitor->i_dsk().bytes, 100U);
  const qbv::IOIterator drives = monitor->drivelist();
  monitor->stop();
  monitor->start();
  EXPECT_EQ(monitor->drivelist(), drives) << "a restart makes no second iterator";
  scripted.devices.removeEntry("IOBlockStorageDriver", "late");
  scripted.advance(0.5);
  scripted.advance(0.5);
  EXPECT_THAT(fields(monitor->i_dsk()), ElementsAre(0, 0, 0, 0, 0)) << "nothing runs backwards";
}

}  // namespace
