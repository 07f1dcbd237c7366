#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/memory/memory_limits.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/footprint.h"

using qbv::platform;

QBVitalscopeMemoryMonitor* QBVitalscopeMemoryMonitor::sharedInstance() {
  static QBVitalscopeMemoryMonitor* const instance = new QBVitalscopeMemoryMonitor;
  return instance;
}

QBVitalscopeMemoryMonitor::QBVitalscopeMemoryMonitor() : maxMemoryUsage_(qbv::kOutOfMemoryMegabytes) {
  setup();
}

void QBVitalscopeMemoryMonitor::setup() {
  qbv::NotificationCentre& host = platform().notifications.defaultCenter();
  processID_ = QBVTool::currentProcessID();
  host.addObserver("QBV_CMD_CONF_LEAVE_COMPLETE", [this](const qbv::Notification&) { startLeaksDetector(); });
  host.addObserver("user_leaks_detect",
                   [this](const qbv::Notification& notification) { userEnableLeaksDetect(notification); });
}

double QBVitalscopeMemoryMonitor::memoryUsageInProgress() {
  return qbv::physicalFootprintMegabytes();
}

void QBVitalscopeMemoryMonitor::start() {
  qbv::DispatchTimerRef fresh;
  {
    const std::lock_guard lock(timerLock_);
    if (isStart()) return;
    timer_.reset();
    fresh = timer();
    isStart_.store(true, std::memory_order_relaxed);
  }
  // Outside the lock: the first tick comes at once and an observer may stop the monitor.
  platform().dispatch.dispatch_resume(fresh);
}

void QBVitalscopeMemoryMonitor::stop() {
  const std::lock_guard lock(timerLock_);
  if (timer_ == nullptr) return;
  platform().dispatch.dispatch_source_cancel(timer_);
  timer_.reset();
  isStart_.store(false, std::memory_order_relaxed);
}

const qbv::DispatchQueueRef& QBVitalscopeMemoryMonitor::queue() {
  if (queue_ == nullptr)
    queue_ = platform().dispatch.dispatch_queue_create(qbv::queueLabel("appmemory.monitor"),
                                                       qbv::QueueKind::concurrent);
  return queue_;
}

const qbv::DispatchTimerRef& QBVitalscopeMemoryMonitor::timer() {
  if (timer_ == nullptr) {
    qbv::Dispatch& dispatch = platform().dispatch;
    timer_ = dispatch.dispatch_source_create(queue());
    dispatch.dispatch_source_set_timer(timer_, qbv::NSEC_PER_SEC, 0);
    dispatch.dispatch_source_set_event_handler(timer_, [this] { handleMemoryMonitor(); });
  }
  return timer_;
}

void QBVitalscopeMemoryMonitor::handleMemoryMonitor() {
  if (tickRuns_.exchange(true, std::memory_order_acquire)) return;
  if (isOutOfMemory()) {
    updateMaxMemoryAndBacktrace();
    reportOncePerHour();
  }
  tickRuns_.store(false, std::memory_order_release);
}
