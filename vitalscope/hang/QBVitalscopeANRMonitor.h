// Finds out that the main thread has stopped answering, and how badly.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/hang/QBVMainThreadGuard.h"
#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/repeating_timer.h"
#include "vitalscope/report/QBVReportFunctions.h"

// Once a tick it posts a guard to the main queue and counts the earlier ones that are still unanswered: two
// or more are a hang, graded by their number. Until a pass of the main loop has been seen it posts none and
// nothing counts as hung. When the main thread answers, a jump or a high level of the
// process's CPU use is a finding too. At most every five seconds a finding becomes a report.
//
// All ticks run on `queue`, one at a time. What other threads may ask is said below; nothing here is for
// signal handlers.
class QBV_EXPORT QBVitalscopeANRMonitor {
 public:
  using Guards = std::vector<std::shared_ptr<QBVMainThreadGuard>>;
  using Records = std::map<std::string, std::int64_t>;

  // The one monitor, made on the first call and never destroyed. Until it is made it hears no notification: a
  // host that became active before counts as inactive. Any thread.
  static QBVitalscopeANRMonitor* sharedInstance();

  // Starts listening to the machine's sleep and wake and to the host becoming active and inactive. Reachable
  // for tests: an instance must live as long as the process.
  QBVitalscopeANRMonitor();
  ~QBVitalscopeANRMonitor() = default;
  QBVitalscopeANRMonitor(const QBVitalscopeANRMonitor&) = delete;
  QBVitalscopeANRMonitor& operator=(const QBVitalscopeANRMonitor&) = delete;

  // Any thread. `start` while started does nothing, otherwise the first tick comes at once. `stop` while
  // stopped does nothing; a tick that is running goes on to its end. Waking from sleep starts the monitor.
  // The first start makes the report singleton.
  void start();
  void stop();

  // Copies, for any thread: the number of ticks at each level, by record key; and one text such as "20%" per
  // CPU jump, oldest first.
  Records runTimeANRInfo() const;
  std::vector<std::string> cpuUseageRecords() const;

  // Seconds between ticks; a change counts from the next start. Any thread.
  double watchdogInterval() const { return ticks_.interval(); }
  void setWatchdogInterval(double seconds) { ticks_.setInterval(seconds); }
  // See RepeatingTimer.
  qbv::DispatchQueueRef queue() { return ticks_.queue(); }
  qbv::DispatchTimerRef timer() { return ticks_.timer(); }

  // State of this moment, for any thread. The machine is awake; the ticks are running; the host is frontmost;
  // ticks with a finding; level of the latest hang (0 after a CPU finding); when a report was last asked for.
  bool isApplicationInActive() const { return isApplicationInActive_.load(std::memory_order_relaxed); }
  bool isStart() const { return ticks_.isStart(); }
  bool appIsActive() const { return appIsActive_.load(std::memory_order_relaxed); }
  std::int64_t anrTimes() const { return anrTimes_.load(std::memory_order_relaxed); }
  std::uint64_t anrLevel() const { return anrLevel_.load(std::memory_order_relaxed); }
  qbv::AbsoluteTime lastReportTime() const { return lastReportTime_.load(std::memory_order_relaxed); }
  // The unanswered guards, oldest first, at most 10; a copy.
  Guards guardsArray() const;

 private:
  // The tick. It lasts as long as the report and the sample that it asks for.
  void handleANRMonitor();
  // What this tick finds: nothing, a blocked main thread, or CPU use.
  QBVReportReason check();
  bool detectMainThreadTimeout();
  // Whether the main thread can be expected to answer at all. Logs once when it takes long.
  bool mainLoopTurns();
  void addMainThreadGuardObject(const std::shared_ptr<QBVMainThreadGuard>& guard);
  bool responseTimeout();
  void recordAnrInfo(const char* key);
  bool cpuUsageForAppOverThreshold();
  void saveReportInfoWithReason(QBVReportReason reason);
  // Runs the system's sampling tool on this process for a second and waits for it.
  void sampleInfo(std::uint64_t level, const std::string& reportId);

  void machineWillSleepNotification();
  void machineDidWakeNotification();
  void appLifeCycleResignActiveNotify();
  void appLifeCycleBecomeActiveNotify();

  std::atomic<bool> isApplicationInActive_{true};
  std::atomic<bool> appIsActive_{false};
  std::atomic<std::int64_t> anrTimes_{0};
  std::atomic<std::uint64_t> anrLevel_{0};
  std::atomic<qbv::AbsoluteTime> lastReportTime_{0};
  double cpuPreValue_ = 0;    // percent; ticks only
  int ticksWithoutLoop_ = 0;  // of an active host; ticks only
  bool loopMissed_ = false;   // ticks only

  qbv::RepeatingTimer ticks_;
  mutable std::mutex recordsLock_;  // held for copies and single changes only
  Guards guardsArray_;
  Records anrRecordDict_;
  std::vector<std::string> cpuUseageRecords_;
};
