#include "vitalscope/hang/QBVitalscopeANRMonitor.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/anr_level.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

QBVitalscopeANRMonitor* QBVitalscopeANRMonitor::sharedInstance() {
  static QBVitalscopeANRMonitor* const instance = new QBVitalscopeANRMonitor;
  return instance;
}

QBVitalscopeANRMonitor::QBVitalscopeANRMonitor()
    : ticks_(qbv::queueLabel("mainthread.monitor"), 1.0, [this] { handleANRMonitor(); }) {
  qbv::NotificationCentre& machine = platform().notifications.workspaceCenter();
  machine.addObserver(qbv::NSWorkspaceWillSleepNotification,
                      [this](const qbv::Notification&) { machineWillSleepNotification(); });
  machine.addObserver(qbv::NSWorkspaceDidWakeNotification,
                      [this](const qbv::Notification&) { machineDidWakeNotification(); });
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  host.addObserver(qbv::NSApplicationDidResignActiveNotification,
                   [this](const qbv::Notification&) { appLifeCycleResignActiveNotify(); });
  host.addObserver(qbv::NSApplicationDidBecomeActiveNotification,
                   [this](const qbv::Notification&) { appLifeCycleBecomeActiveNotify(); });
}

void QBVitalscopeANRMonitor::start() {
  // Its warm-up begins when it is made, and is over when the first hang comes.
  QBVitalscopeReport::sharedInstance();
  ticks_.start();
}

void QBVitalscopeANRMonitor::stop() {
  ticks_.stop();
}

void QBVitalscopeANRMonitor::handleANRMonitor() {
  if (isApplicationInActive())
    saveReportInfoWithReason(check());
  else
    ticks_.stopUnless(isApplicationInActive_);
}

QBVitalscopeANRMonitor::Records QBVitalscopeANRMonitor::runTimeANRInfo() const {
  const std::lock_guard lock(recordsLock_);
  return anrRecordDict_;
}

std::vector<std::string> QBVitalscopeANRMonitor::cpuUseageRecords() const {
  const std::lock_guard lock(recordsLock_);
  return cpuUseageRecords_;
}

QBVitalscopeANRMonitor::Guards QBVitalscopeANRMonitor::guardsArray() const {
  const std::lock_guard lock(recordsLock_);
  return guardsArray_;
}

void QBVitalscopeANRMonitor::recordAnrInfo(const char* key) {
  const std::lock_guard lock(recordsLock_);
  ++anrRecordDict_[key];
}

void QBVitalscopeANRMonitor::machineWillSleepNotification() {
  isApplicationInActive_.store(false, std::memory_order_relaxed);
}

void QBVitalscopeANRMonitor::machineDidWakeNotification() {
  isApplicationInActive_.store(true, std::memory_order_relaxed);
  start();
}

void QBVitalscopeANRMonitor::appLifeCycleResignActiveNotify() {
  appIsActive_.store(false, std::memory_order_relaxed);
}

void QBVitalscopeANRMonitor::appLifeCycleBecomeActiveNotify() {
  appIsActive_.store(true, std::memory_order_relaxed);
}
