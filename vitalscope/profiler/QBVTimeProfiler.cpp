#include "vitalscope/profiler/QBVTimeProfiler.h"

#include <algorithm>
#include <cmath>

#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/runtime.h"
#include "vitalscope/profiler/QBMessageSendHook.h"
#include "vitalscope/profiler/profile_text.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

namespace {

constexpr double kShownCost = 100.0;  // milliseconds
constexpr double kMicrosecondsPerMillisecond = 1000;
constexpr double kMostMicroseconds = 9.0e18;

// The drop of the fraction has no meaning for what does not fit.
std::uint64_t microseconds(double milliseconds) {
  const double wanted = milliseconds * kMicrosecondsPerMillisecond;
  if (std::isnan(wanted) || wanted <= 0) return 0;
  return static_cast<std::uint64_t>(std::min(wanted, kMostMicroseconds));
}

// A message to nil has no class.
const char* orEmpty(const char* name) {
  return name != nullptr ? name : "";
}

std::vector<qbv::RecordedCall> recordedCalls() {
  std::int32_t count = 0;
  const dtp_call_record* const records = dtp_get_call_records(&count);
  std::vector<qbv::RecordedCall> calls;
  for (std::int32_t i = 0; records != nullptr && i < count; ++i) {
    const dtp_call_record& record = records[i];
    calls.push_back({orEmpty(qbv::Runtime::NSStringFromClass(record.cls)),
                     orEmpty(qbv::Runtime::NSStringFromSelector(record.selector)),
                     qbv::Runtime::class_isMetaClass(record.cls), record.timeCost, record.depth});
  }
  return calls;
}

void writeResults() {
  const auto& report = *QBVitalscopeReport::sharedInstance();
  const auto& profiler = *QBVTimeProfiler::sharedInstance();
  const QBVTimeProfilerRecords records = QBVTimeProfiler::getRecords();
  report.createDirectory(report.inspectInfoRecordPath());
  platform().files.remove(profiler.resultValuePath());
  QBVitalscopeReport::writeData(qbv::profileValue(records).jsonText(), profiler.resultValuePath());
  QBVitalscopeReport::writeData(qbv::profilePage(qbv::profileText(records)), profiler.resultFilePath());
}

void stopAndWrite() {
  dtp_hook_end();
  writeResults();
  QBVTimeProfiler::clearRecords();
}

}  // namespace

QBVTimeProfiler* QBVTimeProfiler::sharedInstance() {
  static QBVTimeProfiler* const instance = new QBVTimeProfiler;
  return instance;
}

void QBVTimeProfiler::setOn(bool on) {
  if (on) {
    startRecord();
  } else {
    stopRecord();
  }
}

void QBVTimeProfiler::refreshStatus() {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), [this] { flip(); });
}

void QBVTimeProfiler::flip() {
  const std::lock_guard lock(flipping_);
  setMinCallCost(kShownCost);
  const bool on = !on_.load();
  setOn(on);
  on_ = on;
  if (!on) ++finishedRuns_;
}

bool QBVTimeProfiler::switchTo(bool on) {
  const std::lock_guard lock(flipping_);
  if (on_.load() == on) return false;
  setMinCallCost(kShownCost);
  if (on) {
    startRecord();
  } else {
    stopAndWrite();
    ++finishedRuns_;
  }
  on_ = on;
  return true;
}

std::string QBVTimeProfiler::resultFilePath() const {
  return QBVitalscopeReport::sharedInstance()->inspectInfoRecordPath() + "/method_timer_profiler.html";
}

std::string QBVTimeProfiler::resultValuePath() const {
  return QBVitalscopeReport::sharedInstance()->inspectInfoRecordPath() + "/method_timer_profiler.json";
}

void QBVTimeProfiler::startRecord() {
  dtp_hook_begin();
  for (const std::string& path : {sharedInstance()->resultFilePath(), sharedInstance()->resultValuePath()})
    platform().files.remove(path);
}

void QBVTimeProfiler::stopRecord() {
  dtp_hook_end();
  showRecords();
  clearRecords();
}

void QBVTimeProfiler::clearRecords() {
  dtp_clear_call_records();
}

void QBVTimeProfiler::showRecords() {
  writeResults();
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [path = sharedInstance()->resultFilePath()] {
    platform().processes.openFile(path);
  });
}

std::string QBVTimeProfiler::getRecordsResult() {
  return qbv::profileText(getRecords());
}

void QBVTimeProfiler::appendRecord(const QBVTimeProfilerRecord& record, std::string& to) {
  qbv::appendLines(record, to);
}

QBVTimeProfilerRecords QBVTimeProfiler::getRecords() {
  return qbv::callTree(recordedCalls());
}

void QBVTimeProfiler::setMinCallCost(double milliseconds) {
  dtp_set_min_time(microseconds(milliseconds));
}

void QBVTimeProfiler::setMaxCallDepth(std::int32_t depth) {
  dtp_set_max_depth(std::max(depth, 0));
}
