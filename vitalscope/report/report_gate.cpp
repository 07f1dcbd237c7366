#include "vitalscope/report/report_gate.h"

namespace qbv {

bool ReportGate::enbleFirstReportInTimeScope(QBVReportReason reason, AbsoluteTime now) const noexcept {
  const bool clockWasSetBack = now < startTime;
  switch (reason) {
    case QBVReportReasonMainThreadBlock:
      return now - startTime > 5.0 || clockWasSetBack;
    case QBVReportReasonAppMemoryOversize:
    case QBVReportReasonPower:
      return now - startTime > 30.0 || clockWasSetBack;
    default:
      return false;
  }
}

bool ReportGate::enableReportInTime(QBVReportReason reason, AbsoluteTime now) const noexcept {
  double window = 0.0;
  if (reason == QBVReportReasonMainThreadBlock) window = 5.0;
  if (reason == QBVReportReasonAppMemoryOversize) window = 30.0;
  return now - reportTimeValue >= window;
}

bool ReportGate::decide(QBVReportReason reason, unsigned level, AbsoluteTime now) noexcept {
  if (!enbleFirstReportInTimeScope(reason, now)) return false;
  const bool repeats = lastReportReason == reason && lastReportReason != QBVReportReasonMainThreadBlock;
  if (repeats && !enableReportInTime(reason, now)) return false;
  lastReportReason = reason;
  lastReportLevel = level;
  reportTimeValue = now;
  return true;
}

}  // namespace qbv
