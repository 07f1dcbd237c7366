// Decides when the host's upload helper is asked for an upload, and hands feedback back to it.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/notifications.h"
#include "vitalscope/platform/runtime.h"
#include "vitalscope/report/QBVReportFunctions.h"

namespace qbv {
class SerialWork;
}

// Sends nothing itself: the class "QBCrashReportHelper" of the host does, if there is one. While the host
// handles a request it learns the folder from +[QBVitalscopeReport currentFirstLevelDirPath].
//
// Any thread, not in signal handlers. Requests and feedback are done one after the other, each on the calling
// thread, or, when it comes while another is being done, by the thread that does that one; then the call
// returns at once. So the host may do anything while it handles one: post feedback, ask for another upload,
// wait for another thread. No lock is held while the host runs.
class QBV_EXPORT QBVitalscopeUploader {
 public:
  // For each folder suffix ("/freeze/moderate") when it was last asked for automatically.
  using Records = std::map<std::string, qbv::AbsoluteTime>;
  using RequestIDs = std::vector<std::string>;

  // The one uploader, made on the first call and never destroyed.
  static QBVitalscopeUploader* sharedInstance();

  // Starts the timer below and listens to "OnUploadFeedbackResult". Reachable for tests: an instance must
  // live as long as the process.
  QBVitalscopeUploader();
  ~QBVitalscopeUploader();
  QBVitalscopeUploader(const QBVitalscopeUploader&) = delete;
  QBVitalscopeUploader& operator=(const QBVitalscopeUploader&) = delete;

  // Asks for the folder of a reason and level, if the reason is uploadable. What no user asked for goes out
  // once per folder and window (enableUpload), and in builds that keep no logs only for hangs of level 5.
  void uploadFileWithReason(QBVReportReason reason, unsigned level, bool isUserUpload);
  // Asks the host for the folder that the report singleton's current upload names, and remembers the id it
  // answers. Nothing happens without a host class that can do it.
  void performUploadLogAction(bool isUserUpload);
  // The host's upload object; nil when there is none.
  qbv::id qbvHelperInstance() const;
  // Whether a folder may be asked for automatically now: not within 1800 seconds (3600 for
  // "/app_memory_oversize") of the last time.
  bool enableUpload(const std::string& folderSuffix) const;
  // Hands the user info, as JSON, to the host's upload object once for each request that still waits under
  // its "reqid". Other feedback is ignored.
  void handleOnUploadFeedbackResult(const qbv::Notification& notification);
  // Starts a timer that asks for the level-5 folder, where the records of the day lie, now and every 60
  // seconds, past every filter and window. Each call starts another one; those of earlier calls go on.
  void uploadRuntimePerformanceRecords();
  // 1 and 2.
  std::vector<QBVReportReason> enableUploadType() const;

  // Copies. The ids are in the order in which they came; one whose feedback never comes stays.
  Records reportRecordDict() const;
  void setReportRecordDict(Records records);
  RequestIDs reportIDArray() const;
  void setReportIDArray(RequestIDs ids);
  // Of the last call of uploadRuntimePerformanceRecords.
  qbv::DispatchTimerRef appMonitorTimer() const;
  void setAppMonitorTimer(qbv::DispatchTimerRef timer);
  qbv::DispatchQueueRef queue() const;
  void setQueue(qbv::DispatchQueueRef queue);

 private:
  // All of these in their turn, so that nothing changes meanwhile.
  void request(QBVReportReason reason, unsigned level, bool isUserUpload);
  bool mayRequestAutomatically(const std::string& folderSuffix);
  void askHost(bool isUserUpload);
  void handBack(const std::string& requestId, const qbv::Value& userInfo);
  bool takeLastRequest(const std::string& requestId);

  const std::unique_ptr<qbv::SerialWork> turns_;
  mutable std::mutex lock_;  // held for copies and single changes only
  Records reportRecordDict_;
  RequestIDs reportIDArray_;
  qbv::DispatchTimerRef appMonitorTimer_;
  qbv::DispatchQueueRef queue_;
  std::vector<qbv::DispatchTimerRef> startedTimers_;
};
