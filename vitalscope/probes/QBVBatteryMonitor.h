// Watches what the machine draws from its battery.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/object.h"
#include "vitalscope/platform/repeating_timer.h"
#include "vitalscope/platform/value.h"
#include "vitalscope/probes/QBVBatteryMonitorDelegate.h"

// Every ten seconds it reads the machine's power sources, tells the observers how many watts are drawn, and,
// without power from outside and above 20 W, asks for a power report. A machine without a battery draws 0 W.
//
// Samples run on `queue`, one at a time. What other threads may ask is said below; nothing here is for signal
// handlers.
class QBV_EXPORT QBVBatteryMonitor {
 public:
  // The one monitor, made on the first call and never destroyed. Any thread.
  static QBVBatteryMonitor* sharedInstance();

  // Who writes a report about a heavy draw; called on the monitor's queue. Until one is plugged in there are
  // no reports. Any thread.
  using PowerReport = void (*)();
  static void setPowerReport(PowerReport report) noexcept;

  // Reachable for tests: an instance must live as long as the process.
  QBVBatteryMonitor();
  ~QBVBatteryMonitor() = default;
  QBVBatteryMonitor(const QBVBatteryMonitor&) = delete;
  QBVBatteryMonitor& operator=(const QBVBatteryMonitor&) = delete;

  // Any thread. `start` while started does nothing, otherwise the first sample comes at once. `stop` while
  // stopped does nothing; a sample that is being taken goes on to its end.
  void start();
  void stop();
  bool isStart() const { return ticks_.isStart(); }
  // See RepeatingTimer.
  qbv::DispatchQueueRef queue() { return ticks_.queue(); }
  qbv::DispatchTimerRef timer() { return ticks_.timer(); }

  // One sample. With several power sources the last one decides every field; where none can be read the
  // fields stay as they were, and so does the draw. When the sources cannot even be looked up nothing
  // happens. Samples only.
  void handleBatteryMonitor();
  // Tells the observers, then asks for a report unless the machine has power from outside. Watts.
  void updatePerMinuteBatteryConsume(double watts);
  // Asks for a report when the draw is above 20 W.
  void handleBatteryPower(double watts);

  // Keeps the observer for good; null is left alone. One that does not answer the callback is never called,
  // one that is registered twice is called twice. Any thread.
  void registerDelegate(std::shared_ptr<qbv::Object> observer);
  std::vector<std::shared_ptr<qbv::Object>> delegateObjects() const;
  // A place for the host to keep an observer of its own in; the monitor does not call it. Any thread.
  std::shared_ptr<QBVBatteryMonitorDelegate> delegate() const;
  void setDelegate(const std::shared_ptr<QBVBatteryMonitorDelegate>& delegate);

  // The power source as it was last read, for any thread; 0 and false until then and for what it does not
  // tell. Milliampere hours, or percent where it tells no more; amperes, negative while it discharges; volts;
  // minutes, 65535 when nobody knows. Each is of its own moment when asked during a sample.
  std::int64_t totalCapacity() const { return totalCapacity_.load(std::memory_order_relaxed); }
  std::int64_t currentCharge() const { return currentCharge_.load(std::memory_order_relaxed); }
  double amperage() const { return amperage_.load(std::memory_order_relaxed); }
  double voltage() const { return voltage_.load(std::memory_order_relaxed); }
  std::int64_t minutesRemaining() const { return minutesRemaining_.load(std::memory_order_relaxed); }
  bool isCharging() const { return isCharging_.load(std::memory_order_relaxed); }
  bool isFullyCharged() const { return isFullyCharged_.load(std::memory_order_relaxed); }
  bool isPluggedIn() const { return isPluggedIn_.load(std::memory_order_relaxed); }
  // currentCharge of totalCapacity, 1.0 when full; not a number while totalCapacity is 0. Any thread.
  double percentCharged() const;

 private:
  void takeOver(const qbv::Value& properties);
  double powerDrawn() const;

  std::atomic<std::int64_t> totalCapacity_{0};
  std::atomic<std::int64_t> currentCharge_{0};
  std::atomic<double> amperage_{0};
  std::atomic<double> voltage_{0};
  std::atomic<std::int64_t> minutesRemaining_{0};
  std::atomic<bool> isCharging_{false};
  std::atomic<bool> isFullyCharged_{false};
  std::atomic<bool> isPluggedIn_{false};

  qbv::RepeatingTimer ticks_;
  mutable std::mutex observersLock_;  // held for copies and single changes only
  std::weak_ptr<QBVBatteryMonitorDelegate> delegate_;
  std::vector<std::shared_ptr<qbv::Object>> delegateObjects_;
};
