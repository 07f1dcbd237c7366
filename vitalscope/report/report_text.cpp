#include <algorithm>

#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVReportSources.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/image_list.h"
#include "vitalscope/report/report_facts.h"
#include "vitalscope/report/system_facts.h"

namespace {

std::string dateTimeNow() {
  return QBVitalscopeReport::createDateFormatterInFileName(false).stringFromDate(
      qbv::platform().clock.CFAbsoluteTimeGetCurrent());
}

std::int64_t allocMemoryLiveCount() {
  const auto& count = qbv::reportSources().currentAllocMemoryLiveCount;
  return count ? count() : 0;
}

std::int64_t ocObjectLiveCount() {
  const auto& count = qbv::reportSources().currentOcObjectLiveCount;
  return count ? count() : 0;
}

std::optional<std::string> appMemoryRecords() {
  const auto& records = qbv::reportSources().inOneHourMemoryUsageRecords;
  return records ? records() : std::nullopt;
}

}  // namespace

void QBVitalscopeReport::initSystemInfo() {
  system_ = qbv::collectSystemFacts();
}

std::string QBVitalscopeReport::headerStringForSystemInfo(QBVReportReason reason) const {
  return qbv::headerText(system_, reason, dateTimeNow(), allocMemoryLiveCount(), ocObjectLiveCount());
}

std::string QBVitalscopeReport::exceptionTypeStr(QBVReportReason reason) const {
  return qbv::exceptionTypeText(reason);
}

void QBVitalscopeReport::addWrap(std::string& text) const {
  text += "\n";
}

void QBVitalscopeReport::addHeaderExceptionInfo(std::string& text, QBVReportReason reason) const {
  text += qbv::exceptionLines(reason);
}

void QBVitalscopeReport::addObjectCountInfo(std::string& text) const {
  text += qbv::liveCountLines(allocMemoryLiveCount(), ocObjectLiveCount());
}

std::string QBVitalscopeReport::binaryImagesInfo() const {
  return qbv::binaryImagesText(qbv::listImages(qbv::platform().images), system_.bundleVersion);
}

std::optional<std::string> QBVitalscopeReport::formatUUID(const unsigned char* bytes) const {
  if (bytes == nullptr) return std::nullopt;
  qbv::ImageUUID uuid;
  std::copy_n(bytes, uuid.size(), uuid.begin());
  return qbv::uuidText(uuid);
}

std::string QBVitalscopeReport::getCurrentCPUArch() const {
  return qbv::platform().hostInfo.localArchitecture();
}

std::string QBVitalscopeReport::generateReportStr(const std::string& backtrace, QBVReportReason reason,
                                                  const std::string& /*reportId*/,
                                                  const qbv::Value& extraData) const {
  return qbv::reportText({.system = system_,
                          .reason = reason,
                          .dateTime = dateTimeNow(),
                          .allocMemoryLiveCount = allocMemoryLiveCount(),
                          .ocObjectLiveCount = ocObjectLiveCount(),
                          .backtrace = backtrace,
                          .images = qbv::listImages(qbv::platform().images),
                          .extraData = extraData,
                          .appMemoryRecords = appMemoryRecords()});
}

std::optional<std::string> QBVitalscopeReport::currentBundleVersion() const {
  return system_.bundleVersion;
}
