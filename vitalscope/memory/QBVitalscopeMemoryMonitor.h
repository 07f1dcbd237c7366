// Watches the process's memory.
#pragma once

#include "vitalscope/platform/export.h"

class QBV_EXPORT QBVitalscopeMemoryMonitor {
 public:
  // Physical footprint of the process in megabytes of 1024 × 1024 bytes, unrounded; 0.0 when the kernel
  // cannot be asked. Any thread.
  static double memoryUsageInProgress();
};
