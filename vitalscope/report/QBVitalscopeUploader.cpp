#include "vitalscope/report/QBVitalscopeUploader.h"

#include <algorithm>
#include <utility>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/serial_work.h"

using qbv::platform;

namespace {

constexpr double kSecondsBetweenUploads = 1800;
constexpr double kSecondsBetweenMemoryUploads = 3600;
constexpr std::uint64_t kSecondsBetweenRecordUploads = 60;
constexpr unsigned kFreezeLevel = 5;

double windowOf(const std::string& folderSuffix) {
  return folderSuffix == "/app_memory_oversize" ? kSecondsBetweenMemoryUploads : kSecondsBetweenUploads;
}

void setCurrentUpload(QBVReportReason reason, unsigned level) {
  QBVitalscopeReport* const report = QBVitalscopeReport::sharedInstance();
  report->setCurrentUploadReason(reason);
  report->setCurrentUploadANRLevel(level);
}

}  // namespace

QBVitalscopeUploader* QBVitalscopeUploader::sharedInstance() {
  static QBVitalscopeUploader* const instance = new QBVitalscopeUploader;
  return instance;
}

QBVitalscopeUploader::QBVitalscopeUploader() : turns_(std::make_unique<qbv::SerialWork>()) {
  uploadRuntimePerformanceRecords();
  platform().notifications.defaultCenter().addObserver(
      "OnUploadFeedbackResult",
      [this](const qbv::Notification& feedback) { handleOnUploadFeedbackResult(feedback); });
}

QBVitalscopeUploader::~QBVitalscopeUploader() = default;

std::vector<QBVReportReason> QBVitalscopeUploader::enableUploadType() const {
  return {QBVReportReasonMainThreadBlock, QBVReportReasonCPUOverThreshold};
}

void QBVitalscopeUploader::uploadFileWithReason(QBVReportReason reason, unsigned level, bool isUserUpload) {
  if (QBVTool::inDebug()) return;
  const auto uploadable = enableUploadType();
  if (std::ranges::find(uploadable, reason) == uploadable.end()) return;
  const bool onlyWhereLogsAreKept =
      !isUserUpload && reason == QBVReportReasonMainThreadBlock && level != kFreezeLevel;
  if (onlyWhereLogsAreKept && !QBVTool::isLogVersion()) return;
  turns_->run([=, this] { request(reason, level, isUserUpload); });
}

void QBVitalscopeUploader::request(QBVReportReason reason, unsigned level, bool isUserUpload) {
  setCurrentUpload(reason, level);
  if (isUserUpload || mayRequestAutomatically(qbv_reason_path(reason, level))) askHost(isUserUpload);
}

bool QBVitalscopeUploader::mayRequestAutomatically(const std::string& folderSuffix) {
  if (!enableUpload(folderSuffix)) return false;
  const std::lock_guard hold(lock_);
  reportRecordDict_[folderSuffix] = platform().clock.CFAbsoluteTimeGetCurrent();
  return true;
}

bool QBVitalscopeUploader::enableUpload(const std::string& folderSuffix) const {
  const std::lock_guard hold(lock_);
  const auto last = reportRecordDict_.find(folderSuffix);
  return last == reportRecordDict_.end() ||
         platform().clock.CFAbsoluteTimeGetCurrent() - last->second >= windowOf(folderSuffix);
}

void QBVitalscopeUploader::performUploadLogAction(bool isUserUpload) {
  turns_->run([=, this] { askHost(isUserUpload); });
}

void QBVitalscopeUploader::askHost(bool isUserUpload) {
  const char* const answer = qbv::send<const char*>(platform().runtime, qbvHelperInstance(),
                                                    "uploadPerformanceDumpFile:", isUserUpload);
  if (answer == nullptr || *answer == '\0') return;
  const std::lock_guard hold(lock_);
  reportIDArray_.emplace_back(answer);
}

qbv::id QBVitalscopeUploader::qbvHelperInstance() const {
  qbv::Runtime& runtime = platform().runtime;
  const qbv::id helper = qbv::Runtime::classObject(runtime.NSClassFromString("QBCrashReportHelper"));
  return qbv::send<qbv::id>(runtime, helper, "sharedInstance");
}

void QBVitalscopeUploader::handleOnUploadFeedbackResult(const qbv::Notification& notification) {
  const std::string* const requestId = notification.userInfo["reqid"].string();
  if (requestId == nullptr) return;
  // A host that posts this while it still handles the request has not answered the id yet: its turn comes
  // then.
  turns_->run([this, id = *requestId, userInfo = notification.userInfo] { handBack(id, userInfo); });
}

void QBVitalscopeUploader::handBack(const std::string& requestId, const qbv::Value& userInfo) {
  const std::string json = QBVTool::dictToString(userInfo);
  while (takeLastRequest(requestId))
    qbv::send<void>(platform().runtime, qbvHelperInstance(), "responseDumpFileUploaded:", json.c_str());
}

bool QBVitalscopeUploader::takeLastRequest(const std::string& requestId) {
  const std::lock_guard hold(lock_);
  const auto last = std::find(reportIDArray_.rbegin(), reportIDArray_.rend(), requestId);
  if (last == reportIDArray_.rend()) return false;
  reportIDArray_.erase(std::next(last).base());
  return true;
}

void QBVitalscopeUploader::uploadRuntimePerformanceRecords() {
  qbv::Dispatch& dispatch = platform().dispatch;
  const qbv::DispatchQueueRef queue =
      dispatch.dispatch_queue_create(qbv::queueLabel("qbv.lifecycle"), qbv::QueueKind::concurrent);
  const qbv::DispatchTimerRef timer = dispatch.dispatch_source_create(queue);
  dispatch.dispatch_source_set_timer(timer, kSecondsBetweenRecordUploads * qbv::NSEC_PER_SEC, 0);
  dispatch.dispatch_source_set_event_handler(timer, [this] {
    turns_->run([this] {
      setCurrentUpload(QBVReportReasonMainThreadBlock, kFreezeLevel);
      askHost(true);
    });
  });
  {
    const std::lock_guard hold(lock_);
    queue_ = queue;
    appMonitorTimer_ = timer;
    startedTimers_.push_back(timer);
  }
  dispatch.dispatch_resume(timer);
}

QBVitalscopeUploader::Records QBVitalscopeUploader::reportRecordDict() const {
  const std::lock_guard hold(lock_);
  return reportRecordDict_;
}

void QBVitalscopeUploader::setReportRecordDict(Records records) {
  const std::lock_guard hold(lock_);
  reportRecordDict_ = std::move(records);
}

QBVitalscopeUploader::RequestIDs QBVitalscopeUploader::reportIDArray() const {
  const std::lock_guard hold(lock_);
  return reportIDArray_;
}

void QBVitalscopeUploader::setReportIDArray(RequestIDs ids) {
  const std::lock_guard hold(lock_);
  reportIDArray_ = std::move(ids);
}

qbv::DispatchTimerRef QBVitalscopeUploader::appMonitorTimer() const {
  const std::lock_guard hold(lock_);
  return appMonitorTimer_;
}

void QBVitalscopeUploader::setAppMonitorTimer(qbv::DispatchTimerRef timer) {
  const std::lock_guard hold(lock_);
  appMonitorTimer_ = std::move(timer);
}

qbv::DispatchQueueRef QBVitalscopeUploader::queue() const {
  const std::lock_guard hold(lock_);
  return queue_;
}

void QBVitalscopeUploader::setQueue(qbv::DispatchQueueRef queue) {
  const std::lock_guard hold(lock_);
  queue_ = std::move(queue);
}
