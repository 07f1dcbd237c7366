#include "vitalscope/hang/QBVitalscopeANRMonitor.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/anr_level.h"
#include "vitalscope/platform/platform.h"

using qbv::platform;

QBVitalscopeANRMonitor* QBVitalscopeANRMonitor::sharedInstance() {
  static QBVitalscopeANRMonitor* const instance = new QBVitalscopeANRMonitor;
  return instance;
}

QBVitalscopeANRMonitor::QBVitalscopeANRMonitor() {
  qbv::NotificationCentre& machine = platform().notifications.workspaceCenter();
  machine.addObserver(qbv::NSWorkspaceWillSleepNotification,
                      [this](const qbv::Notification&) { machineWillSleepNotification(); });
  machine.addObserver(qbv::NSWorkspaceDidWakeNotification,
                      [this](const qbv::Notification&) { machineDidWakeNotification(); });
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  host.addObserver(qbv::NSApplicationDidResignActiveNotification,
                   [this](const qbv::Notification&) { appLifeCycleResignActiveNotify(); });
  host.addObserver(qbv::NSApplicationDidBecomeActiveNotification,
                   [this](const qbv::Notification&) { appLifeCycleBecomeActiveNotify(); });
}

void QBVitalscopeANRMonitor::start() {
  qbv::DispatchTimerRef fresh;
  {
    const std::lock_guard lock(timerLock_);
    if (isStart()) return;
    timer_.reset();
    fresh = timer();
    isStart_.store(true, std::memory_order_relaxed);
  }
  // Outside the lock: the first tick comes at once and may stop the monitor.
  platform().dispatch.dispatch_resume(fresh);
}

void QBVitalscopeANRMonitor::stop() {
  const std::lock_guard lock(timerLock_);
  dropTimer();
}

void QBVitalscopeANRMonitor::stopUnlessAwake() {
  const std::lock_guard lock(timerLock_);
  if (!isApplicationInActive()) dropTimer();
}

void QBVitalscopeANRMonitor::dropTimer() {
  if (timer_ == nullptr) return;
  platform().dispatch.dispatch_source_cancel(timer_);
  timer_.reset();
  isStart_.store(false, std::memory_order_relaxed);
}

const qbv::DispatchQueueRef& QBVitalscopeANRMonitor::queue() {
  if (queue_ == nullptr)
    queue_ = platform().dispatch.dispatch_queue_create(qbv::queueLabel("mainthread.monitor"),
                                                       qbv::QueueKind::concurrent);
  return queue_;
}

const qbv::DispatchTimerRef& QBVitalscopeANRMonitor::timer() {
  if (timer_ == nullptr) {
    qbv::Dispatch& dispatch = platform().dispatch;
    timer_ = dispatch.dispatch_source_create(queue());
    const double nanoseconds = watchdogInterval() * static_cast<double>(qbv::NSEC_PER_SEC);
    dispatch.dispatch_source_set_timer(timer_, static_cast<std::uint64_t>(nanoseconds), 0);
    dispatch.dispatch_source_set_event_handler(timer_, [this] { handleANRMonitor(); });
  }
  return timer_;
}

void QBVitalscopeANRMonitor::handleANRMonitor() {
  if (tickRuns_.exchange(true, std::memory_order_acquire)) return;
  if (isApplicationInActive())
    saveReportInfoWithReason(check());
  else
    stopUnlessAwake();
  tickRuns_.store(false, std::memory_order_release);
}

QBVitalscopeANRMonitor::Records QBVitalscopeANRMonitor::runTimeANRInfo() const {
  const std::lock_guard lock(recordsLock_);
  return anrRecordDict_;
}

std::vector<std::string> QBVitalscopeANRMonitor::cpuUseageRecords() const {
  const std::lock_guard lock(recordsLock_);
  return cpuUseageRecords_;
}

QBVitalscopeANRMonitor::Guards QBVitalscopeANRMonitor::guardsArray() const {
  const std::lock_guard lock(recordsLock_);
  return guardsArray_;
}

void QBVitalscopeANRMonitor::recordAnrInfo(const char* key) {
  const std::lock_guard lock(recordsLock_);
  ++anrRecordDict_[key];
}

void QBVitalscopeANRMonitor::machineWillSleepNotification() {
  isApplicationInActive_.store(false, std::memory_order_relaxed);
}

void QBVitalscopeANRMonitor::machineDidWakeNotification() {
  isApplicationInActive_.store(true, std::memory_order_relaxed);
  start();
}

void QBVitalscopeANRMonitor::appLifeCycleResignActiveNotify() {
  appIsActive_.store(false, std::memory_order_relaxed);
}

void QBVitalscopeANRMonitor::appLifeCycleBecomeActiveNotify() {
  appIsActive_.store(true, std::memory_order_relaxed);
}
