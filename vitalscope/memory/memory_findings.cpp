// What a tick of the memory monitor finds and what it does about it.
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/memory/memory_limits.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

namespace {

constexpr std::int64_t kInMeeting = 2;

}  // namespace

bool QBVitalscopeMemoryMonitor::isOutOfMemory() {
  QBVitalscopeMemoryMonitor& monitor = *sharedInstance();
  const double usage = memoryUsageInProgress();
  monitor.tellObservers(usage);
  monitor.recordRealTimeMemory(usage);
  if (inMeetingStatus() || usage < qbv::kOutOfMemoryMegabytes) return false;
  monitor.memoryUsage_.store(usage, std::memory_order_relaxed);
  return true;
}

void QBVitalscopeMemoryMonitor::tellObservers(double megabytes) const {
  for (const auto& observer : delegateObjects())
    if (auto* const delegate = dynamic_cast<QBVMemoryMonitorDelegate*>(observer.get()); delegate != nullptr)
      delegate->qbvMemoryUsage(megabytes);
}

bool QBVitalscopeMemoryMonitor::inMeetingStatus() {
  const qbv::id adapter = sharedInstance()->qbAppInterfaceAdapter();
  return qbv::sendInteger(platform().runtime, adapter, "getCallStatus") == kInMeeting;
}

qbv::id QBVitalscopeMemoryMonitor::qbAppInterfaceAdapter() {
  qbv::id adapter = qbAppInterfaceAdapter_.load(std::memory_order_relaxed);
  if (adapter != nullptr) return adapter;
  qbv::Runtime& runtime = platform().runtime;
  const qbv::id host = qbv::Runtime::classObject(runtime.NSClassFromString("QBKXAppInterfaceAdapter"));
  adapter = qbv::send<qbv::id>(runtime, host, "sharedKXAppHelperInstance");
  qbAppInterfaceAdapter_.store(adapter, std::memory_order_relaxed);
  return adapter;
}

void QBVitalscopeMemoryMonitor::updateMaxMemoryAndBacktrace() {
  if (maxMemoryUsage() > memoryUsage()) return;
  maxMemoryUsage_.store(memoryUsage(), std::memory_order_relaxed);
  std::string backtrace = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
  const std::lock_guard lock(recordsLock_);
  memoryBacktrace_ = std::move(backtrace);
}

std::optional<std::string> QBVitalscopeMemoryMonitor::memoryBacktrace() const {
  const std::lock_guard lock(recordsLock_);
  return memoryBacktrace_;
}

void QBVitalscopeMemoryMonitor::reportOncePerHour() {
  const qbv::AbsoluteTime now = platform().clock.CFAbsoluteTimeGetCurrent();
  if (now - lastRecordTime() < qbv::kSecondsBetweenMemoryReports) return;
  lastRecordTime_.store(now, std::memory_order_relaxed);
  QBVitalscopeReport::sharedInstance()->reportWithBacktrace(
      memoryBacktrace(), QBVReportReasonAppMemoryOversize, 0, qbv::Value::Dictionary{});
}
