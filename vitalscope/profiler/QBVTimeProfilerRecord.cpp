#include "vitalscope/profiler/QBVTimeProfilerRecord.h"

#include <algorithm>

#include "vitalscope/profiler/profile_text.h"

namespace {

constexpr double kMillisecondsPerSecond = 1000;
constexpr std::size_t kCostWidth = 6;
constexpr std::uint64_t kDeepestIndent =
    4096;  // depths come from a counter that a host's bug may have spoilt

}  // namespace

void QBVTimeProfilerRecord::addSubRecord(std::shared_ptr<QBVTimeProfilerRecord> record) {
  if (!subRecords_) subRecords_.emplace();
  subRecords_->push_back(std::move(record));
}

std::string QBVTimeProfilerRecord::descriptionWithDepth() const {
  const std::string cost = qbv::withTwoDecimals(timeCost_ * kMillisecondsPerSecond);
  std::string line(cost.size() < kCostWidth ? kCostWidth - cost.size() : 0, ' ');
  line += cost + "ms| ";
  line.append(2 * std::min(callDepth_, kDeepestIndent), ' ');
  return line + (isClassMethod_ ? "+[" : "-[") + className_ + " " + methodName_ + "]";
}
