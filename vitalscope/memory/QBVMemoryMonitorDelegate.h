// Callback of those who want every sample of the process's memory.
#pragma once

#include "vitalscope/platform/export.h"

// An observer derives from qbv::Object and from this.
class QBV_EXPORT QBVMemoryMonitorDelegate {
 public:
  virtual ~QBVMemoryMonitorDelegate() = default;
  // The footprint in megabytes of 1024 × 1024 bytes, 0.0 when it could not be read. Once a second on the
  // monitor's queue, which waits: return soon.
  virtual void qbvMemoryUsage(double megabytes) = 0;
};
