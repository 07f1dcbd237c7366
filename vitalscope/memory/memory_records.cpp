// The memory monitor's observers and its samples of every minute.
#include <cstdio>
#include <utility>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/memory/memory_limits.h"
#include "vitalscope/platform/platform.h"

namespace {

std::string sampleText(double megabytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f", megabytes);
  return text;
}

}  // namespace

void QBVitalscopeMemoryMonitor::registerDelegate(std::shared_ptr<qbv::Object> observer) {
  if (observer == nullptr) return;
  const std::lock_guard lock(recordsLock_);
  delegateObjects_.push_back(std::move(observer));
}

std::vector<std::shared_ptr<qbv::Object>> QBVitalscopeMemoryMonitor::delegateObjects() const {
  const std::lock_guard lock(recordsLock_);
  return delegateObjects_;
}

void QBVitalscopeMemoryMonitor::recordRealTimeMemory(double megabytes) {
  const qbv::AbsoluteTime now = qbv::platform().clock.CFAbsoluteTimeGetCurrent();
  if (now - rtmLastRecordTime() < qbv::kSecondsBetweenMemorySamples) return;
  rtmLastRecordTime_.store(now, std::memory_order_relaxed);
  {
    const std::lock_guard lock(recordsLock_);
    realTimeMemoryArray_.push_back(sampleText(megabytes));
  }
  updateInOneHourMemoryRecord(megabytes);
}

void QBVitalscopeMemoryMonitor::updateInOneHourMemoryRecord(double megabytes) {
  const std::lock_guard lock(recordsLock_);
  inOneHourMemoryArray_.push_back(sampleText(megabytes));
  if (inOneHourMemoryArray_.size() >= qbv::kSamplesTooMany)
    inOneHourMemoryArray_.erase(inOneHourMemoryArray_.begin());
}

QBVitalscopeMemoryMonitor::Samples QBVitalscopeMemoryMonitor::realTimeMemoryArray() const {
  const std::lock_guard lock(recordsLock_);
  return realTimeMemoryArray_;
}

QBVitalscopeMemoryMonitor::Samples QBVitalscopeMemoryMonitor::readInOneHourMemoryArray() const {
  const std::lock_guard lock(recordsLock_);
  return inOneHourMemoryArray_;
}

std::string QBVitalscopeMemoryMonitor::inOneHourMemoryUsageRecords() const {
  const Samples samples = readInOneHourMemoryArray();
  return dictToString(qbv::Value::Dictionary{
      {"memoryRecords", qbv::Value::Array(samples.begin(), samples.end())},
      {"timeInterval", qbv::kSecondsBetweenMemorySamples},
  });
}

std::string QBVitalscopeMemoryMonitor::dictToString(const qbv::Value& dictionary) {
  const qbv::Value::Dictionary* const content = dictionary.dictionary();
  return content == nullptr || content->empty() ? "" : QBVTool::dictToString(dictionary);
}
