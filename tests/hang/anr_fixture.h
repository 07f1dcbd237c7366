// The ANR monitor on a scripted platform: time, the main thread and CPU use are the test's.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

// A log-keeping build past the warm-up of hang reports, an active host, a monitor that is not started. Every
// request for a report shows as one run of the sampling tool.
class ANRMonitorTest : public testing::Test {
 protected:
  static constexpr double kLongPastWarmUp = 60;

  ANRMonitorTest() {
    keepsLogs = true;
    qbv::ClassDefinition(scripted.runtime, "NSBundle")
        .classMethod(
            "isLogVersion", +[](qbv::id, qbv::SEL) -> bool { return keepsLogs; });
    scripted.task.addThread(qbv::ScriptedTask::kMainThread);
    QBVitalscopeReport::sharedInstance();
    scripted.advance(kLongPastWarmUp);
    monitor = QBVitalscopeANRMonitor::sharedInstance();
    hostBecomesActive();
  }

  void hostBecomesActive() { host().post(qbv::NSApplicationDidBecomeActiveNotification); }
  void hostResignsActive() { host().post(qbv::NSApplicationDidResignActiveNotification); }
  void machineWillSleep() { machine().post(qbv::NSWorkspaceWillSleepNotification); }
  void machineDidWake() { machine().post(qbv::NSWorkspaceDidWakeNotification); }

  void start() {
    monitor->start();
    scripted.runUntilIdle();
  }
  // The next `count` ticks, the main thread blocked all the while or answering between any two.
  void ticksWhileBlocked(int count) {
    for (int tick = 0; tick < count; ++tick) scripted.advance(1);
  }
  void ticksWhileAnswering(int count) {
    for (int tick = 0; tick < count; ++tick) {
      scripted.runLoop.drainAll();
      scripted.advance(1);
    }
  }
  void setCPUPercent(int percent) { scripted.task.setCpuUsage(qbv::ScriptedTask::kMainThread, percent * 10); }

  std::vector<std::string> sampleCommands() const {
    std::vector<std::string> commands;
    for (const std::string& line : scripted.processes.commandLines())
      if (line.starts_with("sample ")) commands.push_back(line);
    return commands;
  }
  std::size_t reportRequests() const { return sampleCommands().size(); }
  std::size_t reportsOfLevel(unsigned level) {
    const QBVitalscopeReport& report = *QBVitalscopeReport::sharedInstance();
    std::size_t reports = 0;
    for (const std::string& name :
         scripted.files.contentsOfDirectory(report.freezeRootPath() + report.stuckLevelPath(level)))
      if (name.starts_with("quibapp_stuck_")) ++reports;
    return reports;
  }

  qbv::ScriptedPlatform scripted;
  QBVitalscopeANRMonitor* monitor = nullptr;
  inline static bool keepsLogs = true;

 private:
  qbv::NotificationCentre& host() { return scripted.notifications.defaultCenter(); }
  qbv::NotificationCentre& machine() { return scripted.notifications.workspaceCenter(); }
};
