// The scripted platform with a host that says whether its build keeps logs.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

class ReportTest : public testing::Test {
 protected:
  ReportTest() {
    qbv::ClassDefinition(system.runtime, "NSBundle")
        .classMethod(
            "isLogVersion", +[](qbv::id, qbv::SEL) -> bool { return keepsLogs; });
  }

  static QBVitalscopeReport& report() { return *QBVitalscopeReport::sharedInstance(); }
  std::string root() const { return system.files.home() + "/Library/Logs/quibapp/Diagnostic/4242"; }

  // Makes a file and its folder; `age` is seconds before now.
  void makeFile(const std::string& path, double age = 0) {
    system.files.createDirectory(path.substr(0, path.rfind('/')));
    ASSERT_TRUE(system.files.writeAtomically(path, "x"));
    system.files.setCreationDate(path, system.clock.CFAbsoluteTimeGetCurrent() - age);
  }
  bool exists(const std::string& path) { return system.files.fileExists(path); }
  std::vector<std::string> filesBelow(const std::string& path) {
    std::vector<std::string> found;
    report().allLogFiles(path, found);
    std::sort(found.begin(), found.end());
    return found;
  }

  static inline bool keepsLogs = false;
  qbv::ScriptedPlatform system;
};
