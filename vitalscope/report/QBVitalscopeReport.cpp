#include "vitalscope/report/QBVitalscopeReport.h"

#include <mutex>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/report_gate.h"

namespace {

qbv::AbsoluteTime now() {
  return qbv::platform().clock.CFAbsoluteTimeGetCurrent();
}

}  // namespace

struct QBVitalscopeReport::Gate {
  std::mutex lock;
  qbv::ReportGate state;
};

QBVitalscopeReport* QBVitalscopeReport::sharedInstance() {
  static QBVitalscopeReport* const instance = new QBVitalscopeReport;
  return instance;
}

QBVitalscopeReport::QBVitalscopeReport() : gate_(std::make_unique<Gate>()) {
  initSystemInfo();
  setStartTime(now());
  qbv::platform().dispatch.dispatch_resume(syncMemoryRecordTimer());
  listenToUser();
}

QBVitalscopeReport::~QBVitalscopeReport() = default;

void QBVitalscopeReport::listenToUser() {
  qbv::NotificationCentre& host = qbv::platform().notifications.defaultCenter();
  for (const char* name : {"quib_user_report_performance_log", "qbcrash_report_panel_send_button_action"})
    host.addObserver(name, [this](const qbv::Notification&) { userUploadLog(); });
  if (!QBVTool::isLogVersion()) return;
  host.addObserver("open_diagnostic_folder",
                   [this](const qbv::Notification& wish) { openDiagnosticFolder(wish); });
  createStandingFolders();
}

void QBVitalscopeReport::createStandingFolders() const {
  createDirectory(localLogFolderRootPath());
  createDirectory(inspectInfoRecordPath());
  createDirectory(sampleLogPath());
  createDirectory(dumpReportPath());
}

bool QBVitalscopeReport::enbleFirstReportInTimeScope(QBVReportReason reason) const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.enbleFirstReportInTimeScope(reason, now());
}

bool QBVitalscopeReport::enableReportInTime(QBVReportReason reason) const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.enableReportInTime(reason, now());
}

bool QBVitalscopeReport::passGate(QBVReportReason reason, unsigned level) {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.decide(reason, level, now());
}

qbv::AbsoluteTime QBVitalscopeReport::startTime() const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.startTime;
}

QBVReportReason QBVitalscopeReport::lastReportReason() const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.lastReportReason;
}

unsigned QBVitalscopeReport::lastReportLevel() const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.lastReportLevel;
}

qbv::AbsoluteTime QBVitalscopeReport::reportTimeValue() const {
  const std::lock_guard hold(gate_->lock);
  return gate_->state.reportTimeValue;
}

void QBVitalscopeReport::setStartTime(qbv::AbsoluteTime time) {
  const std::lock_guard hold(gate_->lock);
  gate_->state.startTime = time;
}

void QBVitalscopeReport::setLastReportReason(QBVReportReason reason) {
  const std::lock_guard hold(gate_->lock);
  gate_->state.lastReportReason = reason;
}

void QBVitalscopeReport::setLastReportLevel(unsigned level) {
  const std::lock_guard hold(gate_->lock);
  gate_->state.lastReportLevel = level;
}

void QBVitalscopeReport::setReportTimeValue(qbv::AbsoluteTime time) {
  const std::lock_guard hold(gate_->lock);
  gate_->state.reportTimeValue = time;
}
