// The memory monitor's leak check, which a meeting's end sets off.
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/memory/memory_limits.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

void QBVitalscopeMemoryMonitor::userEnableLeaksDetect(const qbv::Notification& notification) {
  enableLeaksDetect_.store(notification.userInfo["enable_leaks_detect"].boolValue(),
                           std::memory_order_relaxed);
}

bool QBVitalscopeMemoryMonitor::mayCheckLeaksNow() {
  const qbv::AbsoluteTime now = qbv::platform().clock.CFAbsoluteTimeGetCurrent();
  qbv::AbsoluteTime last = leaksReportTime();
  // Of two notifications at once one gets the turn.
  return now - last >= qbv::kSecondsBetweenLeakChecks && leaksReportTime_.compare_exchange_strong(last, now);
}

void QBVitalscopeMemoryMonitor::startLeaksDetector() {
  if (enableLeaksDetect() && mayCheckLeaksNow())
    QBVitalscopeReport::sharedInstance()->writeToDiskWithLeaksInfo(getLeaksInfo());
}

std::string QBVitalscopeMemoryMonitor::getLeaksInfo() const {
  return QBVTool::cmd("leaks " + processID()).value_or("");
}
