// What a click on the gauge does.
#include <string>
#include <vector>

#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

using qbv::platform;

namespace {

void openNewestReport() {
  const QBVitalscopeReport& report = *QBVitalscopeReport::sharedInstance();
  std::vector<std::string> files;
  report.allLogFiles(report.localLogFolderRootPath(), files);
  std::erase_if(files, [](const std::string& path) { return !path.ends_with(".hang"); });
  if (files.empty()) return;
  platform().processes.openFile(QBVitalscopeReport::getContentsOfDirectoryByTimeOrderAtPath(files).front());
}

}  // namespace

void QBVitalscopeDashboard::qbvDashboardButtonMouseDown(const qbv::NSEvent&) {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_global_queue(), openNewestReport);
}
