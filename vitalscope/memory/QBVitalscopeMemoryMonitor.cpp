#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/memory/memory_limits.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/footprint.h"

using qbv::platform;

QBVitalscopeMemoryMonitor* QBVitalscopeMemoryMonitor::sharedInstance() {
  static QBVitalscopeMemoryMonitor* const instance = new QBVitalscopeMemoryMonitor;
  return instance;
}

QBVitalscopeMemoryMonitor::QBVitalscopeMemoryMonitor()
    : maxMemoryUsage_(qbv::kOutOfMemoryMegabytes),
      ticks_(qbv::queueLabel("appmemory.monitor"), 1.0, [this] { handleMemoryMonitor(); }) {
  setup();
}

void QBVitalscopeMemoryMonitor::setup() {
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  processID_ = QBVTool::currentProcessID();
  host.addObserver("QBV_CMD_CONF_LEAVE_COMPLETE", [this](const qbv::Notification&) { startLeaksDetector(); });
  host.addObserver("user_leaks_detect",
                   [this](const qbv::Notification& notification) { userEnableLeaksDetect(notification); });
}

double QBVitalscopeMemoryMonitor::memoryUsageInProgress() {
  return qbv::physicalFootprintMegabytes();
}

void QBVitalscopeMemoryMonitor::start() {
  ticks_.start();
}

void QBVitalscopeMemoryMonitor::stop() {
  ticks_.stop();
}

void QBVitalscopeMemoryMonitor::handleMemoryMonitor() {
  if (!isOutOfMemory()) return;
  updateMaxMemoryAndBacktrace();
  reportOncePerHour();
}
