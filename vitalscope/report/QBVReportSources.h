// Values that reports take from the monitors above them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/report/QBVReportFunctions.h"

namespace qbv {

// Each may be empty: then the count is 0, the records are missing, and nothing is offered. Called on whatever
// thread writes a report, without a lock of this room held; they must not report themselves.
struct QBVReportSources {
  // Heap blocks alive that the allocation monitor counts.
  std::function<std::int64_t()> currentAllocMemoryLiveCount;
  // Objects alive.
  std::function<std::int64_t()> currentOcObjectLiveCount;
  // JSON text with the last hour of memory samples; nothing when there is none.
  std::function<std::optional<std::string>()> inOneHourMemoryUsageRecords;
  // Offers the folder of a reason and level to the host's uploader. Called after a report was written, in
  // log-keeping builds only.
  std::function<void(QBVReportReason reason, unsigned level, bool isUserUpload)> uploadFileWithReason;
};

// Plugs the monitors in. Meant for load, before the first report; may be called again from any thread:
// reports under way finish with the sources they began with.
QBV_EXPORT void setReportSources(QBVReportSources sources);

// The sources in place; none of its functions is set before setReportSources. Any thread. Stays valid for
// ever.
const QBVReportSources& reportSources() noexcept;

}  // namespace qbv
