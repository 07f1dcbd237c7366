#include "vitalscope/control/load.h"

#include "vitalscope/control/QBVLaunchManager.h"
#include "vitalscope/control/QBVitalscope.h"
#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/memory/QBObjectAllocMonitor.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVBatteryMonitor.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/profiler/QBVTimeProfiler.h"
#include "vitalscope/report/QBVReportSources.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/report_class.h"

namespace qbv {

namespace {

// What reports tell about the monitors above them.
QBVReportSources sources() {
  QBVReportSources sources;
  sources.currentAllocMemoryLiveCount = QBAllocateMemoryMonitor::currentAllocMemoryLiveCount;
  sources.currentOcObjectLiveCount = NSObject_AllocMonitor::currentOcObjectLiveCount;
  sources.inOneHourMemoryUsageRecords = [] {
    return QBVitalscopeMemoryMonitor::sharedInstance()->inOneHourMemoryUsageRecords();
  };
  sources.launchTime = [] { return std::optional(QBVitalscopeDashboard::sharedInstance()->launchTime()); };
  sources.realTimeMemoryArray = [] {
    const auto samples = QBVitalscopeMemoryMonitor::sharedInstance()->realTimeMemoryArray();
    return Value(Value::Array(samples.begin(), samples.end()));
  };
  sources.cpuUseageRecords = [] {
    const auto jumps = QBVitalscopeANRMonitor::sharedInstance()->cpuUseageRecords();
    return Value(Value::Array(jumps.begin(), jumps.end()));
  };
  sources.runTimeANRInfo = [] {
    const auto hangs = QBVitalscopeANRMonitor::sharedInstance()->runTimeANRInfo();
    return Value(Value::Dictionary(hangs.begin(), hangs.end()));
  };
  return sources;
}

// A display and its fonts are found in the background first: the toggle itself costs the main thread little,
// and comes to it whichever thread posts the notification.
void toggleDashboard() {
  platform().windows.prepare([] { QBVitalscopeDashboard::sharedInstance()->setup(); });
}

}  // namespace

void load() {
  setReportSources(sources());
  defineReportClass();
  QBVLaunchManager::setLaunchTimeReceiver(
      [](double seconds) { QBVitalscopeDashboard::sharedInstance()->setLaunchTime(seconds); });
  QBVBatteryMonitor::setPowerReport([] {
    QBVitalscopeReport::sharedInstance()->reportWithReason(QBVReportReasonPower, 0, Value::Dictionary());
  });
  QBVitalscope::sharedInstance()->setDebugAction(QBVitalscope::DebugSwitch::dashboard, toggleDashboard);
  QBVitalscope::load();
  QBVitalscope::sharedInstance()->setDebugAction(QBVitalscope::DebugSwitch::timeProfiler,
                                                 [] { QBVTimeProfiler::sharedInstance()->refreshStatus(); });
  QBVitalscopeBacktrace::load();
  NSObject_AllocMonitor::load();
  QBVitalscopeANRMonitor_RunLoop::load();
}

}  // namespace qbv
