// Values that reports take from the monitors above them.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/value.h"
#include "vitalscope/report/QBVReportFunctions.h"

namespace qbv {

// Each may be empty: then the count is 0 and the value is missing. Called on whatever thread writes a report
// or the records of the day, without a lock of this room held; they must not report themselves. What they
// answer is a copy that nobody changes any more.
struct QBVReportSources {
  // Heap blocks alive that the allocation monitor counts.
  std::function<std::int64_t()> currentAllocMemoryLiveCount;
  // Objects alive.
  std::function<std::int64_t()> currentOcObjectLiveCount;
  // JSON text with the last hour of memory samples; nothing when there is none.
  std::function<std::optional<std::string>()> inOneHourMemoryUsageRecords;

  // For the records of the day; nil leaves a value out.
  // How long the host took to launch, in seconds.
  std::function<std::optional<double>()> launchTime;
  // Memory samples and CPU jumps since the start of the process (arrays), hangs by level (a dictionary).
  std::function<Value()> realTimeMemoryArray;
  std::function<Value()> cpuUseageRecords;
  std::function<Value()> runTimeANRInfo;
};

// Plugs the monitors in. Meant for load, before the first report; may be called again from any thread:
// reports under way finish with the sources they began with.
QBV_EXPORT void setReportSources(QBVReportSources sources);

// The sources in place; none of its functions is set before setReportSources. Any thread. Stays valid for
// ever.
const QBVReportSources& reportSources() noexcept;

}  // namespace qbv
