#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/file_ages.h"

namespace {

constexpr int kDeepestFolder = 16;
constexpr long kDaysKept = 8;

void listFiles(const std::string& path, int depth, std::vector<std::string>& result) {
  qbv::Files& files = qbv::platform().files;
  if (!files.isDirectory(path)) {
    if (files.fileExists(path)) result.push_back(path);
    return;
  }
  if (depth > kDeepestFolder) return;
  for (const std::string& name : files.contentsOfDirectory(path))
    listFiles(path + "/" + name, depth + 1, result);
}

std::vector<qbv::DatedFile> dated(const std::vector<std::string>& paths) {
  std::vector<qbv::DatedFile> files;
  files.reserve(paths.size());
  for (const std::string& path : paths) files.push_back({path, qbv::platform().files.creationDate(path)});
  return files;
}

}  // namespace

void QBVitalscopeReport::cleanLogFile() {
  qbv::Files& files = qbv::platform().files;
  const std::string folder = qbv::expandingTildeInPath("~/Library/Logs/quibapp");
  const qbv::AbsoluteTime now = qbv::platform().clock.CFAbsoluteTimeGetCurrent();
  for (const std::string& name : files.contentsOfDirectory(folder)) {
    if (name.find("quibapp.app") == std::string::npos) continue;
    const std::string path = folder + "/" + name;
    const auto made = files.creationDate(path);
    if (made && getDaysFrom(*made, now) >= kDaysKept) removeDirectory(path.c_str());
  }
}

long QBVitalscopeReport::getDaysFrom(qbv::AbsoluteTime from, qbv::AbsoluteTime to) {
  return qbv::calendarDaysBetween(from, to);
}

void QBVitalscopeReport::innerRefreshFilesQuantity() {
  const qbv::Platform& system = qbv::platform();
  system.dispatch.dispatch_async(system.dispatch.dispatch_get_global_queue(), [this] {
    removeOverTimeFile(freezeRootPath());
    removeOverTimeFile(appMemoryOversizePath());
    removeOverTimeFile(leaksReportPath());
  });
}

void QBVitalscopeReport::refreshFilesQuantity() {
  innerRefreshFilesQuantity();
}

void QBVitalscopeReport::cleanOverLimitLeaksInfoFile() {
  removeOverTimeFile(leaksReportPath());
}

void QBVitalscopeReport::removeOverTimeFile(const std::string& folder) {
  std::vector<std::string> paths;
  allLogFiles(folder, paths);
  if (paths.size() <= qbv::kFilesKept) return;
  if (const auto file = qbv::fileToTrim(dated(paths))) removeDirectory(file->c_str());
}

void QBVitalscopeReport::allLogFiles(const std::string& path, std::vector<std::string>& result) const {
  listFiles(path, 0, result);
}

std::vector<std::string> QBVitalscopeReport::getContentsOfDirectoryByTimeOrderAtPath(
    const std::vector<std::string>& paths) {
  return qbv::newestFirst(dated(paths));
}
