#include <algorithm>
#include <utility>

#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/QBVitalscopeUploader.h"

using qbv::platform;

namespace {

constexpr unsigned kLightLevel = 1;
constexpr unsigned kFreezeLevel = 5;
constexpr std::size_t kFilesOfALevel = 5;
constexpr std::size_t kFilesOfTheFreezeLevel = 10;

void uploadForUser(unsigned level) {
  QBVitalscopeUploader::sharedInstance()->uploadFileWithReason(QBVReportReasonMainThreadBlock, level, true);
}

void uploadChosenFolder(std::string url) {
  constexpr std::string_view kScheme = "file://";
  for (std::size_t at = url.find(kScheme); at != std::string::npos; at = url.find(kScheme, at))
    url.erase(at, kScheme.size());
  uploadForUser(static_cast<unsigned>(QBVTool::anrLevelWithPath(url)));
}

}  // namespace

void QBVitalscopeReport::userUploadLog() {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), [this] {
    const std::vector<unsigned> levels = allFreezeLogTypes();
    setUploadLogTypes(levels);
    for (const unsigned level : levels) uploadForUser(level);
  });
}

std::vector<unsigned> QBVitalscopeReport::uploadLogTypes() const {
  const std::lock_guard hold(lock_);
  return uploadLogTypes_;
}

void QBVitalscopeReport::setUploadLogTypes(std::vector<unsigned> levels) {
  const std::lock_guard hold(lock_);
  uploadLogTypes_ = std::move(levels);
}

std::vector<unsigned> QBVitalscopeReport::allFreezeLogTypes() const {
  std::vector<unsigned> levels;
  for (unsigned level = kLightLevel; level <= kFreezeLevel; ++level) addFreezeTypeWithANRLevel(level, levels);
  return levels;
}

void QBVitalscopeReport::addFreezeTypeWithANRLevel(unsigned level, std::vector<unsigned>& levels) const {
  if (!platform().files.contentsOfDirectory(freezeStuckLogPath(level)).empty()) levels.push_back(level);
}

std::vector<std::string> QBVitalscopeReport::allFreezeLogFiles() const {
  std::vector<std::string> files;
  for (unsigned level = kLightLevel; level <= kFreezeLevel; ++level) {
    const std::size_t count = level == kFreezeLevel ? kFilesOfTheFreezeLevel : kFilesOfALevel;
    std::ranges::move(logFiles(freezeStuckLogPath(level), count), std::back_inserter(files));
  }
  return files;
}

std::vector<std::string> QBVitalscopeReport::fullPathFiles(const std::string& folder) const {
  std::vector<std::string> paths = platform().files.contentsOfDirectory(folder);
  for (std::string& path : paths) path.insert(0, folder + "/");
  return paths;
}

std::vector<std::string> QBVitalscopeReport::logFiles(const std::string& folder, std::size_t count) const {
  return arrayOfDate(fullPathFiles(folder), count);
}

std::vector<std::string> QBVitalscopeReport::arrayOfDate(const std::vector<std::string>& paths,
                                                         std::size_t count) const {
  std::vector<std::string> sorted = getContentsOfDirectoryByTimeOrderAtPath(paths);
  if (sorted.size() > count) sorted.resize(count);
  return sorted;
}

void QBVitalscopeReport::openDiagnosticFolder(const qbv::Notification& notification) {
  if (!QBVTool::isLogVersion()) return;
  const qbv::Value& subType = notification.userInfo["subType"];
  if (subType.isNil())
    showDiagnosticFolder();
  else if (subType == qbv::Value("freeze"))
    chooseFolderToUpload();
}

void QBVitalscopeReport::showDiagnosticFolder() const {
  QBVTool::cmd("open " + qbv::shellWord(localLogFolderRootPath()));
}

void QBVitalscopeReport::chooseFolderToUpload() const {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [this] {
    platform().processes.chooseFolder({selectTitleStr(), freezeRootPath()},
                                      [](const std::optional<std::string>& url) {
                                        if (url) uploadChosenFolder(*url);
                                      });
  });
}

std::string QBVitalscopeReport::selectTitleStr() const {
  qbv::Runtime& runtime = platform().runtime;
  const qbv::id host = qbv::Runtime::classObject(runtime.NSClassFromString("QBNetworkDiagnosticManager"));
  const char* const title = qbv::send<const char*>(runtime, host, "titleSelectStr");
  return title != nullptr ? title : "Select";
}
