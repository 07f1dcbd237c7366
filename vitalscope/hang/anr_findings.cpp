// What a tick of the ANR monitor finds and what it does about it.
#include <cstdio>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/hang/QBVitalscopeANRMonitor.h"
#include "vitalscope/hang/anr_level.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

namespace {

constexpr double kCPUJump = 10.0;   // percentage points above the figure of the tick before
constexpr double kCPULevel = 70.0;  // percent of one core
constexpr double kSecondsBetweenReports = 5.0;
constexpr double kSecondsToMissTheLoop = 10.0;  // a large application may well take that long to start

std::string percentText(double percent) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f%%", percent);
  return text;
}

}  // namespace

QBVReportReason QBVitalscopeANRMonitor::check() {
  if (!isApplicationInActive() || !appIsActive()) return QBVReportReasonNone;
  if (detectMainThreadTimeout()) return QBVReportReasonMainThreadBlock;
  return cpuUsageForAppOverThreshold() ? QBVReportReasonCPUOverThreshold : QBVReportReasonNone;
}

bool QBVitalscopeANRMonitor::mainLoopTurns() {
  if (platform().runLoop.mainLoopSeen()) return true;
  if (++ticksWithoutLoop_ * watchdogInterval() >= kSecondsToMissTheLoop && !loopMissed_) {
    loopMissed_ = true;
    platform().log.NSLog(
        "QuibVitalscope: no main loop has been seen yet, so hangs are not watched. A program with a loop of "
        "its own polls the main queue's descriptor.");
  }
  return false;
}

bool QBVitalscopeANRMonitor::detectMainThreadTimeout() {
  if (!mainLoopTurns()) return false;
  const auto guard = std::make_shared<QBVMainThreadGuard>();
  addMainThreadGuardObject(guard);
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [guard] { guard->responseDetect(); });
  return responseTimeout();
}

void QBVitalscopeANRMonitor::addMainThreadGuardObject(const std::shared_ptr<QBVMainThreadGuard>& guard) {
  const std::lock_guard lock(recordsLock_);
  if (guardsArray_.size() < qbv::kMostGuards) guardsArray_.push_back(guard);
}

bool QBVitalscopeANRMonitor::responseTimeout() {
  std::size_t unanswered = 0;
  {
    const std::lock_guard lock(recordsLock_);
    std::erase_if(guardsArray_, [](const auto& guard) { return guard->isDetect(); });
    unanswered = guardsArray_.size();
  }
  const std::uint64_t level = qbv::anrLevelForUnansweredGuards(unanswered);
  if (level == 0) return false;
  anrLevel_.store(level, std::memory_order_relaxed);
  recordAnrInfo(qbv::anrRecordKey(level));
  return true;
}

bool QBVitalscopeANRMonitor::cpuUsageForAppOverThreshold() {
  const double usage = QBVitalscopeCPU::cpuUsageForApp();
  const bool jumped = usage - cpuPreValue_ > kCPUJump;
  cpuPreValue_ = usage;
  if (!jumped) return usage > kCPULevel;
  const std::lock_guard lock(recordsLock_);
  cpuUseageRecords_.push_back(percentText(usage));
  return true;
}

void QBVitalscopeANRMonitor::saveReportInfoWithReason(QBVReportReason reason) {
  if (reason == QBVReportReasonNone) return;
  if (reason != QBVReportReasonMainThreadBlock) anrLevel_.store(0, std::memory_order_relaxed);
  anrTimes_.fetch_add(1, std::memory_order_relaxed);

  const qbv::AbsoluteTime now = platform().clock.CFAbsoluteTimeGetCurrent();
  const double sinceLastReport = now - lastReportTime();
  // A clock that was set back tells nothing about the time between; it must not silence the monitor for
  // hours.
  if (sinceLastReport >= 0 && sinceLastReport < kSecondsBetweenReports) return;
  lastReportTime_.store(now, std::memory_order_relaxed);

  const std::uint64_t level = anrLevel();
  const qbv::Value extraData = qbv::Value::Dictionary{{"anrLevel", level}};
  const std::string reportId = QBVitalscopeReport::sharedInstance()->reportWithBacktrace(
      QBVitalscopeBacktrace::qbv_backtraceOfAllThread(), reason, static_cast<unsigned>(level), extraData);
  if (QBVTool::isLogVersion()) sampleInfo(level, reportId);
}

void QBVitalscopeANRMonitor::sampleInfo(std::uint64_t level, const std::string& reportId) {
  const std::string path = QBVitalscopeReport::sharedInstance()->localFilePathWithReportId(
      reportId, QBVReportReasonMainThreadBlock, static_cast<unsigned>(level), true);
  QBVTool::cmd("sample " + QBVTool::currentProcessID() + " 1 -file " + qbv::shellWord(path));
}
