// What a click on the gauge does.
#include <string>
#include <string_view>
#include <vector>

#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

namespace {

// Neither the call sample that follows a hang's report nor the records of the day, which are the newest file
// most of the time.
bool isReport(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return name.starts_with("quibapp_") && name.ends_with(".hang") && !name.ends_with("_sample.hang");
}

void openNewestReport() {
  const QBVitalscopeReport& report = *QBVitalscopeReport::sharedInstance();
  std::vector<std::string> files;
  report.allLogFiles(report.localLogFolderRootPath(), files);
  std::erase_if(files, [](const std::string& path) { return !isReport(path); });
  if (files.empty()) return;
  platform().processes.openFile(QBVitalscopeReport::getContentsOfDirectoryByTimeOrderAtPath(files).front());
}

}  // namespace

void QBVitalscopeDashboard::qbvDashboardButtonMouseDown(const qbv::NSEvent&) {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), openNewestReport);
}
