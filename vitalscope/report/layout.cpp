#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/diagnostic_tree.h"

std::string QBVitalscopeReport::localLogFolderRootPath() const {
  return qbv::diagnosticTree().root;
}

std::string QBVitalscopeReport::appMemoryOversizePath() const {
  return qbv::diagnosticTree().appMemoryOversize;
}

std::string QBVitalscopeReport::objectMemoryOversizePath() const {
  return qbv::diagnosticTree().objectMemoryOversize;
}

std::string QBVitalscopeReport::leaksReportPath() const {
  return qbv::diagnosticTree().leaks;
}

std::string QBVitalscopeReport::powerReportPath() const {
  return qbv::diagnosticTree().power;
}

std::string QBVitalscopeReport::dumpReportPath() const {
  return qbv::diagnosticTree().dump;
}

std::string QBVitalscopeReport::inspectInfoRecordPath() const {
  return qbv::diagnosticTree().inspectInfoRecord;
}

std::string QBVitalscopeReport::sampleLogPath() const {
  return qbv::diagnosticTree().sampleLog;
}

std::string QBVitalscopeReport::freezeRootPath() const {
  return localLogFolderRootPath() + "/freeze";
}

std::string QBVitalscopeReport::stuckLevelPath(unsigned level) const {
  return qbv_anr_level_path(level);
}

std::string QBVitalscopeReport::freezeStuckLogPath(unsigned level) const {
  std::string folder = freezeRootPath() + "/" + stuckLevelPath(level);
  createDirectory(folder);
  return folder;
}

void QBVitalscopeReport::createDirectory(const std::string& path) const {
  // Without a home folder the tree has no place: "~" must not become a folder of the host's working
  // directory.
  if (path.empty() || path.front() == '~') return;
  qbv::Files& files = qbv::platform().files;
  if (!files.fileExists(path)) files.createDirectory(path);
}

void QBVitalscopeReport::createRootDirWithReason(QBVReportReason reason) const {
  const qbv::DiagnosticTree& tree = qbv::diagnosticTree();
  const bool keepsLogs = QBVTool::isLogVersion();
  createDirectory(tree.root);
  if (reason == QBVReportReasonMainThreadBlock) createDirectory(freezeRootPath());
  if (!keepsLogs) {
    for (const std::string* folder : {&tree.appMemoryOversize, &tree.objectMemoryOversize, &tree.leaks,
                                      &tree.power, &tree.dump, &tree.inspectInfoRecord, &tree.sampleLog})
      removeDirectory(folder->c_str());
    return;
  }
  if (reason == QBVReportReasonAppMemoryOversize) createDirectory(tree.appMemoryOversize);
  if (reason == QBVReportReasonObjectMemoryOversize) createDirectory(tree.objectMemoryOversize);
  if (reason == QBVReportReasonPower) createDirectory(tree.power);
  for (const std::string* folder : {&tree.inspectInfoRecord, &tree.sampleLog, &tree.dump})
    createDirectory(*folder);
}

std::string QBVitalscopeReport::localFilePathWithReportId(const std::string& reportId, QBVReportReason reason,
                                                          unsigned level, bool isSample) const {
  const bool inLevelFolder = reason == QBVReportReasonMainThreadBlock && !isSample;
  return qbv::reportFilePath(qbv::diagnosticTree(), inLevelFolder ? freezeStuckLogPath(level) : "", reportId,
                             reason, isSample);
}

std::string QBVitalscopeReport::currentDateStr() const {
  return qbv::DateFormatter("yyyy_MM_dd").stringFromDate(qbv::platform().clock.CFAbsoluteTimeGetCurrent());
}

qbv::DateFormatter QBVitalscopeReport::createDateFormatterInFileName(bool inFileName) {
  return qbv::DateFormatter(inFileName ? "yyyy-MM-dd_HH_mm_ss" : "yyyy-MM-dd HH:mm:ss.ssss xx");
}

std::string QBVitalscopeReport::currentFirstLevelDirPath() {
  const QBVitalscopeReport* report = sharedInstance();
  return qbv_reason_path(report->currentUploadReason(), report->currentUploadANRLevel());
}
