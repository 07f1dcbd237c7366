// The road of a heavy battery draw, from sign-in to the file, and the drives beside it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/control/scripted_host.h"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/control/load.h"
#include "vitalscope/probes/QBVIOMonitor.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

using testing::HasSubstr;
using testing::SizeIs;

TEST(PowerReport, HeavyDrawOfALogKeepingBuildIsWrittenFromSignInToSignOut) {
  qbv::ScriptedPlatform scripted;
  ScriptedHost host(scripted.runtime);
  const std::string email = "someone@" + std::string(qbv::mailDomain());
  host.defineUser(email.c_str());
  host.defineLogVersion(1);
  scripted.task.addThread(qbv::ScriptedTask::kMainThread);
  scripted.devices.setEntry("IOPMPowerSource", "BAT0",
                            qbv::Value::Dictionary{{"Amperage", -2500}, {"Voltage", 12000}});
  scripted.devices.setEntry(
      "IOBlockStorageDriver", "vda",
      qbv::Value::Dictionary{{"Statistics", qbv::Value::Dictionary{{"Bytes (Read)", 4096}}}});
  qbv::load();
  const QBVitalscopeReport& report = *QBVitalscopeReport::sharedInstance();
  scripted.advance(3600);  // past every warm-up

  const auto post = [&](const char* name) {
    scripted.notifications.defaultCenter().post(name);
    scripted.runUntilIdle();
  };
  const auto reports = [&] { return scripted.files.contentsOfDirectory(report.powerReportPath()); };
  post("Noti_Login_FB_Login_Finished");
  ASSERT_THAT(reports(), SizeIs(1));
  EXPECT_THAT(scripted.files.read(report.powerReportPath() + "/" + reports().front()).value_or(""),
              HasSubstr("Date/Time:       2024-01-15 13:00:00"));
  EXPECT_EQ(QBVIOMonitor::sharedInstance()->i_dsk().bytes, 4096U);
  scripted.advance(10);
  EXPECT_THAT(reports(), SizeIs(2)) << "once every ten seconds";

  post("Noti_LogOut");
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 3U)
      << "the records of the day and their two upload timers go on";
}

}  // namespace
