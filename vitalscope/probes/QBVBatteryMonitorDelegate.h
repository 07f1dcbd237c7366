// Callback of those who want to know how much power the machine draws from its battery.
#pragma once

#include "vitalscope/platform/export.h"

// An observer derives from qbv::Object and from this.
class QBV_EXPORT QBVBatteryMonitorDelegate {
 public:
  virtual ~QBVBatteryMonitorDelegate() = default;
  // Watts; 0.0 while nothing is drawn. Every ten seconds on the monitor's queue, which waits: return soon.
  virtual void qbvBatteryMonitorPerMinPowerConsumption(double watts) = 0;
};
