#include "vitalscope/control/monitors.h"

#include <array>
#include <optional>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/probes/QBVBatteryMonitor.h"
#include "vitalscope/probes/QBVIOMonitor.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/QBVitalscopeUploader.h"

namespace qbv {

namespace {

// The gate of log-keeping builds, asked once and only when a monitor is reached that needs it.
class LogVersionGate {
 public:
  bool lets(const Monitor& monitor) {
    if (!monitor.needsLogVersion) return true;
    if (!isLogVersion_) isLogVersion_ = QBVTool::isLogVersion();
    return *isLogVersion_;
  }

 private:
  std::optional<bool> isLogVersion_;
};

}  // namespace

std::span<const Monitor> monitors() {
  static constexpr std::array table = {
      Monitor{"main thread", false, [] { QBVitalscopeANRMonitor::sharedInstance()->start(); },
              [] { QBVitalscopeANRMonitor::sharedInstance()->stop(); }},
      Monitor{"allocations", true, [] { QBAllocateMemoryMonitor::sharedInstance()->startMonitor(); },
              [] { QBAllocateMemoryMonitor::sharedInstance()->stop(); }},
      Monitor{"memory", true, [] { QBVitalscopeMemoryMonitor::sharedInstance()->start(); },
              [] { QBVitalscopeMemoryMonitor::sharedInstance()->stop(); }},
      Monitor{"battery", true, [] { QBVBatteryMonitor::sharedInstance()->start(); },
              [] { QBVBatteryMonitor::sharedInstance()->stop(); }},
      Monitor{"host log folder", true, [] { QBVitalscopeReport::sharedInstance()->cleanLogFile(); }, nullptr},
      Monitor{"record uploads", true,
              [] { QBVitalscopeUploader::sharedInstance()->uploadRuntimePerformanceRecords(); }, nullptr},
      Monitor{"drives", true, [] { QBVIOMonitor::sharedInstance()->start(); },
              [] { QBVIOMonitor::sharedInstance()->stop(); }},
  };
  return table;
}

void startMonitors(std::span<const Monitor> monitors) {
  if (!QBVTool::isInternalAccount()) return;
  LogVersionGate gate;
  for (const Monitor& monitor : monitors)
    if (gate.lets(monitor)) monitor.start();
}

void stopMonitors(std::span<const Monitor> monitors) {
  LogVersionGate gate;
  for (const Monitor& monitor : monitors)
    if (gate.lets(monitor) && monitor.stop != nullptr) monitor.stop();
}

}  // namespace qbv
