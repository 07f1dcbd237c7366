#include <charconv>
#include <cstdint>
#include <utility>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVReportSources.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

constexpr std::uint64_t kSecondsBetweenRecords = 60;
constexpr unsigned kFreezeLevel = 5;

// Six decimals behind a point, whatever locale the host has set.
std::string secondsText(double seconds) {
  char text[400];  // the largest double has 309 digits before the point
  const auto [end, error] = std::to_chars(text, text + sizeof text, seconds, std::chars_format::fixed, 6);
  return error == std::errc() ? std::string(text, end) : std::string();
}

template <class Source>
void addFrom(const Source& source, const char* key, qbv::Value::Dictionary& records) {
  qbv::Value value = source ? source() : qbv::Value();
  if (!value.isNil()) records[key] = std::move(value);
}

qbv::Value recordsOfThisMoment(const std::optional<std::string>& version) {
  const qbv::QBVReportSources& sources = qbv::reportSources();
  qbv::Value::Dictionary records;
  if (const auto launched = sources.launchTime ? sources.launchTime() : std::nullopt)
    records["LaunchTime"] = secondsText(*launched);
  if (version) records["Version"] = *version;
  addFrom(sources.realTimeMemoryArray, "Memory", records);
  addFrom(sources.cpuUseageRecords, "CPU", records);
  addFrom(sources.runTimeANRInfo, "ANR", records);
  return records;
}

void replaceFile(const std::string& path, const std::string& text) {
  // What is there would be added to where logs are kept.
  removeDirectory(path.c_str());
  QBVitalscopeReport::writeData(text, path);
}

}  // namespace

qbv::DispatchTimerRef QBVitalscopeReport::syncMemoryRecordTimer() {
  const std::lock_guard hold(lock_);
  if (syncMemoryRecordTimer_ == nullptr) {
    qbv::Dispatch& dispatch = qbv::platform().dispatch;
    syncMemoryRecordTimer_ = dispatch.dispatch_source_create(
        dispatch.dispatch_queue_create(qbv::queueLabel("apm.syncrecord"), qbv::QueueKind::concurrent));
    dispatch.dispatch_source_set_timer(syncMemoryRecordTimer_, kSecondsBetweenRecords * qbv::NSEC_PER_SEC, 0);
    dispatch.dispatch_source_set_event_handler(syncMemoryRecordTimer_, [this] { syncMemoryRecordsToDisk(); });
  }
  return syncMemoryRecordTimer_;
}

void QBVitalscopeReport::setSyncMemoryRecordTimer(qbv::DispatchTimerRef timer) {
  const std::lock_guard hold(lock_);
  syncMemoryRecordTimer_ = std::move(timer);
}

std::string QBVitalscopeReport::dailyFile(const std::string& folder, const char* ending) const {
  return folder + "/" + currentDateStr() + ending;
}

void QBVitalscopeReport::syncMemoryRecordsToDisk() {
  if (!QBVTool::isLogVersion()) return;
  const std::string path = dailyFile(freezeStuckLogPath(kFreezeLevel), "_inspect_info_record.hang");
  replaceFile(path, QBVTool::dictToString(recordsOfThisMoment(currentBundleVersion())));
}

void QBVitalscopeReport::syncANRRecordsToDisk(const qbv::Value& records) {
  if (const auto text = records.jsonText(true))
    replaceFile(dailyFile(inspectInfoRecordPath(), "_anr_records.crash"), *text);
}
