#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/report/QBVMMapFileManager.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/QBVitalscopeUploader.h"

namespace {

std::string reportIdOfThisMoment() {
  return QBVitalscopeReport::createDateFormatterInFileName(true).stringFromDate(
      qbv::platform().clock.CFAbsoluteTimeGetCurrent());
}

}  // namespace

void QBVitalscopeReport::reportWithReason(QBVReportReason reason, unsigned level,
                                          const qbv::Value& extraData) {
  reportWithBacktrace(QBVitalscopeBacktrace::qbv_backtraceOfAllThread(), reason, level, extraData);
}

std::string QBVitalscopeReport::reportWithBacktrace(const std::optional<std::string>& backtrace,
                                                    QBVReportReason reason, unsigned level,
                                                    const qbv::Value& extraData) {
  if (!passGate(reason, level)) return "";
  return writeToDiskWithBacktrace(backtrace, reason, level, extraData);
}

std::string QBVitalscopeReport::writeToDiskWithBacktrace(const std::optional<std::string>& backtrace,
                                                         QBVReportReason reason, unsigned level,
                                                         const qbv::Value& extraData) {
  if (!backtrace || backtrace->empty() || reason == QBVReportReasonCPUOverThreshold) return "";
  const std::string reportId = reportIdOfThisMoment();
  writeToLocal(reason == QBVReportReasonLeaks ? *backtrace
                                              : generateReportStr(*backtrace, reason, reportId, extraData),
               reason, level, reportId);
  if (QBVTool::isLogVersion())
    QBVitalscopeUploader::sharedInstance()->uploadFileWithReason(reason, level, false);
  return reportId;
}

std::string QBVitalscopeReport::writeToLocal(const std::string& text, QBVReportReason reason, unsigned level,
                                             const std::string& reportId) {
  createRootDirWithReason(reason);
  std::string path = localFilePathWithReportId(reportId, reason, level, false);
  // A reason without a folder has a bare name, which would land in the host's working directory.
  if (path.find('/') == std::string::npos) return path;
  writeData(text, path);
  innerRefreshFilesQuantity();
  return path;
}

void QBVitalscopeReport::writeToDiskWithLeaksInfo(const std::string& leaksInfo) {
  if (leaksInfo.empty()) return;
  const qbv::Platform& system = qbv::platform();
  system.dispatch.dispatch_async(system.dispatch.dispatch_get_global_queue(), [this, leaksInfo] {
    cleanOverLimitLeaksInfoFile();
    const std::string path =
        localFilePathWithReportId(reportIdOfThisMoment(), QBVReportReasonLeaks, 0, false);
    createDirectory(leaksReportPath());
    writeData(leaksInfo, path);
    // A file that could not be written must not bring up an error of the opener.
    if (qbv::platform().files.fileExists(path)) qbv::platform().processes.openFile(path);
  });
}

void QBVitalscopeReport::writeData(const std::optional<std::string>& text,
                                   const std::optional<std::string>& path) {
  if (!text || !path) return;
  qbv::Files& files = qbv::platform().files;
  const bool isNew = !files.fileExists(*path);
  if (isNew) files.createFile(*path);
  if (QBVTool::isLogVersion() && QBVMMapFileManager::writeContent(text, path)) return;
  // On a full disk an empty file would count among those kept, and push out a report that says something.
  if (!files.writeAtomically(*path, *text) && isNew) files.remove(*path);
}
