// Watches the process's memory.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/memory/QBVMemoryMonitorDelegate.h"
#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/notifications.h"
#include "vitalscope/platform/object.h"
#include "vitalscope/platform/repeating_timer.h"
#include "vitalscope/platform/runtime.h"
#include "vitalscope/platform/value.h"

// Once a second it reads the footprint, tells the observers and keeps one sample a minute. 1024 MB or more
// outside of a meeting is a finding: the stacks of all threads are taken at every new peak and at its like,
// and at most once an hour those of the highest peak become a report. Beside that, and whether or not the
// sampling runs, it has the platform's leak tool look at the process after a meeting, when the host has
// enabled that.
//
// All ticks run on `queue`, one at a time. What other threads may ask is said below; nothing here is for
// signal handlers.
class QBV_EXPORT QBVitalscopeMemoryMonitor {
 public:
  using Samples = std::vector<std::string>;  // whole megabytes in decimal, such as "1187", oldest first

  // The one monitor, made on the first call and never destroyed. It hears of meetings that end and of the
  // leak check's switch only once it is made. Any thread.
  static QBVitalscopeMemoryMonitor* sharedInstance();

  // Physical footprint of the process in megabytes of 1024 × 1024 bytes, unrounded; 0.0 when the kernel
  // cannot be asked. Any thread.
  static double memoryUsageInProgress();
  // One sample with all that comes of it: tells the observers, keeps the minute's sample and asks the host
  // about a meeting. Whether it is a finding. Ticks only.
  static bool isOutOfMemory();
  // Whether the host says that its user is in a meeting; it is asked each time, on the calling thread, which
  // may be any.
  static bool inMeetingStatus();

  // Starts listening to the host's notifications. Reachable for tests: an instance must live as long as the
  // process.
  QBVitalscopeMemoryMonitor();
  ~QBVitalscopeMemoryMonitor() = default;
  QBVitalscopeMemoryMonitor(const QBVitalscopeMemoryMonitor&) = delete;
  QBVitalscopeMemoryMonitor& operator=(const QBVitalscopeMemoryMonitor&) = delete;

  // Any thread. `start` while started does nothing, otherwise the first tick comes at once. `stop` while
  // stopped does nothing; a tick that is running goes on to its end. What was sampled survives a stop.
  void start();
  void stop();
  bool isStart() const { return ticks_.isStart(); }
  // See RepeatingTimer.
  qbv::DispatchQueueRef queue() { return ticks_.queue(); }
  qbv::DispatchTimerRef timer() { return ticks_.timer(); }

  // Keeps the observer for good; null is left alone. One that does not answer qbvMemoryUsage is never called,
  // one that is registered twice is called twice. Any thread.
  void registerDelegate(std::shared_ptr<qbv::Object> observer);
  std::vector<std::shared_ptr<qbv::Object>> delegateObjects() const;

  // Copies, for any thread: one sample a minute since the start of the process, and the last 59 of them.
  Samples realTimeMemoryArray() const;
  Samples readInOneHourMemoryArray() const;
  // JSON text {"memoryRecords":[…],"timeInterval":60} of the last 59 samples. Any thread.
  std::string inOneHourMemoryUsageRecords() const;
  // JSON text of a dictionary; "" for an empty one and for what JSON cannot hold. Any thread.
  static std::string dictToString(const qbv::Value& dictionary);

  // Keeps the sample unless the last one was kept less than 60 seconds ago. Megabytes. Ticks only.
  void recordRealTimeMemory(double megabytes);
  // Adds a sample to the last hour's. Any thread.
  void updateInOneHourMemoryRecord(double megabytes);

  // State of this moment, for any thread; seconds of absolute time, megabytes. When the last report was asked
  // for, the last minute's sample kept, the last leak check begun; the last finding and the highest one, with
  // the stacks that were taken at it.
  qbv::AbsoluteTime lastRecordTime() const { return lastRecordTime_.load(std::memory_order_relaxed); }
  qbv::AbsoluteTime rtmLastRecordTime() const { return rtmLastRecordTime_.load(std::memory_order_relaxed); }
  qbv::AbsoluteTime leaksReportTime() const { return leaksReportTime_.load(std::memory_order_relaxed); }
  double memoryUsage() const { return memoryUsage_.load(std::memory_order_relaxed); }
  double maxMemoryUsage() const { return maxMemoryUsage_.load(std::memory_order_relaxed); }
  std::optional<std::string> memoryBacktrace() const;
  bool enableLeaksDetect() const { return enableLeaksDetect_.load(std::memory_order_relaxed); }
  const std::string& processID() const { return processID_; }

 private:
  void setup();

  // The tick.
  void handleMemoryMonitor();
  void tellObservers(double megabytes) const;
  void updateMaxMemoryAndBacktrace();
  void reportOncePerHour();
  // The host's adapter, nil when there is none; looked for anew until one is found.
  qbv::id qbAppInterfaceAdapter();

  // On the thread that posts the notification. The leak check keeps it waiting until the tool has ended.
  void userEnableLeaksDetect(const qbv::Notification& notification);
  void startLeaksDetector();
  bool mayCheckLeaksNow();
  std::string getLeaksInfo() const;

  std::atomic<bool> enableLeaksDetect_{false};
  std::atomic<qbv::AbsoluteTime> leaksReportTime_{0};
  std::atomic<qbv::AbsoluteTime> rtmLastRecordTime_{0};
  std::atomic<qbv::AbsoluteTime> lastRecordTime_{0};
  std::atomic<double> memoryUsage_{0};
  std::atomic<double> maxMemoryUsage_;
  std::atomic<qbv::id> qbAppInterfaceAdapter_{nullptr};
  std::string processID_;

  qbv::RepeatingTimer ticks_;
  mutable std::mutex recordsLock_;  // held for copies and single changes only
  Samples realTimeMemoryArray_;
  Samples inOneHourMemoryArray_;
  std::vector<std::shared_ptr<qbv::Object>> delegateObjects_;
  std::optional<std::string> memoryBacktrace_;
};
