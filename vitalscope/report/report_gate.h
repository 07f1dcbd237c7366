// Whether a report may be written now.
#pragma once

#include "vitalscope/platform/clock.h"
#include "vitalscope/report/QBVReportFunctions.h"

namespace qbv {

// A pure value: no clock and no lock of its own. Times are absolute seconds.
struct ReportGate {
  AbsoluteTime startTime = 0;
  QBVReportReason lastReportReason = QBVReportReasonNone;
  unsigned lastReportLevel = 0;
  AbsoluteTime reportTimeValue = 0;

  // More than 5 s after the start for a hang, more than 30 s for app memory and power; never for other
  // reasons. A clock that now shows a time before the start was set back: then the warm-up counts as over.
  bool enbleFirstReportInTimeScope(QBVReportReason reason, AbsoluteTime now) const noexcept;
  // At least 5 s (hang), 30 s (app memory) or 0 s (others) after the last report.
  bool enableReportInTime(QBVReportReason reason, AbsoluteTime now) const noexcept;
  // Whether this report passes; if so it becomes the last one. Within its spacing a report is refused only
  // after one of the same reason, and a hang never (the hang monitor spaces its own).
  bool decide(QBVReportReason reason, unsigned level, AbsoluteTime now) noexcept;
};

}  // namespace qbv
