#include "vitalscope/report/report_class.h"

#include "vitalscope/platform/platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"
#include "vitalscope/report/diagnostic_tree.h"

namespace qbv {

namespace {

const char* currentFirstLevelDirPath(id, SEL) {
  const QBVitalscopeReport* const report = QBVitalscopeReport::sharedInstance();
  return qbv_reason_path(report->currentUploadReason(), report->currentUploadANRLevel());
}

const char* localLogFolderRootPath(id, SEL) {
  return diagnosticTree().root.c_str();
}

id instanceInTable = nullptr;

}  // namespace

void defineReportClass() {
  ClassDefinition report(platform().runtime, "QBVitalscopeReport");
  report.method("localLogFolderRootPath", localLogFolderRootPath);
  instanceInTable = report.instance();
  report.classMethod("currentFirstLevelDirPath", currentFirstLevelDirPath)
      .classMethod(
          "sharedInstance", +[](id, SEL) { return instanceInTable; });
}

}  // namespace qbv
