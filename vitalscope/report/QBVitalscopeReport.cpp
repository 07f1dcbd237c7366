#include "vitalscope/report/QBVitalscopeReport.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"

QBVitalscopeReport* QBVitalscopeReport::sharedInstance() {
  static QBVitalscopeReport* const instance = new QBVitalscopeReport;
  return instance;
}

QBVitalscopeReport::QBVitalscopeReport() {
  initSystemInfo();
  setStartTime(qbv::platform().clock.CFAbsoluteTimeGetCurrent());
  if (QBVTool::isLogVersion()) createStandingFolders();
}

void QBVitalscopeReport::createStandingFolders() const {
  createDirectory(localLogFolderRootPath());
  createDirectory(inspectInfoRecordPath());
  createDirectory(sampleLogPath());
  createDirectory(dumpReportPath());
}

qbv::AbsoluteTime QBVitalscopeReport::startTime() const {
  const std::lock_guard hold(gateLock_);
  return gate_.startTime;
}

QBVReportReason QBVitalscopeReport::lastReportReason() const {
  const std::lock_guard hold(gateLock_);
  return gate_.lastReportReason;
}

unsigned QBVitalscopeReport::lastReportLevel() const {
  const std::lock_guard hold(gateLock_);
  return gate_.lastReportLevel;
}

qbv::AbsoluteTime QBVitalscopeReport::reportTimeValue() const {
  const std::lock_guard hold(gateLock_);
  return gate_.reportTimeValue;
}

void QBVitalscopeReport::setStartTime(qbv::AbsoluteTime time) {
  const std::lock_guard hold(gateLock_);
  gate_.startTime = time;
}

void QBVitalscopeReport::setLastReportReason(QBVReportReason reason) {
  const std::lock_guard hold(gateLock_);
  gate_.lastReportReason = reason;
}

void QBVitalscopeReport::setLastReportLevel(unsigned level) {
  const std::lock_guard hold(gateLock_);
  gate_.lastReportLevel = level;
}

void QBVitalscopeReport::setReportTimeValue(qbv::AbsoluteTime time) {
  const std::lock_guard hold(gateLock_);
  gate_.reportTimeValue = time;
}
