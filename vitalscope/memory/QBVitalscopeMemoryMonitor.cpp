#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"

#include "vitalscope/probes/footprint.h"

double QBVitalscopeMemoryMonitor::memoryUsageInProgress() {
  return qbv::physicalFootprintMegabytes();
}
