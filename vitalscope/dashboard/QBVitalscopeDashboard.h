// The small floating gauge that shows developers the process's memory and CPU use.
#pragma once

#include <atomic>
#include <memory>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/object.h"

class QBV_EXPORT QBVitalscopeDashboard : public qbv::Object {
 public:
  // The one dashboard, made on the first call and never destroyed. Any thread.
  static QBVitalscopeDashboard* sharedInstance();

  QBVitalscopeDashboard() = default;
  QBVitalscopeDashboard(const QBVitalscopeDashboard&) = delete;
  QBVitalscopeDashboard& operator=(const QBVitalscopeDashboard&) = delete;

  // The host's launch duration in seconds, kept for others; 0 until it is measured. Any thread.
  double launchTime() const { return launchTime_.load(std::memory_order_relaxed); }
  void setLaunchTime(double seconds) { launchTime_.store(seconds, std::memory_order_relaxed); }

 private:
  std::atomic<double> launchTime_{0};
};
