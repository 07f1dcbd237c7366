// The scripted platform with a host that says whether its build keeps logs.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
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

  // A host with an upload helper: what it is asked for, as "user" or "automatic" and the folder, and what it
  // gets back. It answers `requestId` after doing `whileHandling`, once.
  void defineUploadHelper() {
    qbv::ClassDefinition helper(system.runtime, "QBCrashReportHelper");
    helper
        .method(
            "uploadPerformanceDumpFile:",
            +[](qbv::id, qbv::SEL, bool isUserUpload) -> const char* {
              asked.push_back((isUserUpload ? "user " : "automatic ") +
                              QBVitalscopeReport::currentFirstLevelDirPath());
              const std::string id = requestId;
              if (const auto once = std::exchange(whileHandling, nullptr)) once();
              static std::string answered;
              answered = id;
              return answered.c_str();
            })
        .method(
            "responseDumpFileUploaded:", +[](qbv::id, qbv::SEL, const char* json) -> void {
              handedBack.push_back(json);
            });
    static qbv::id instance;
    instance = helper.instance();
    helper.classMethod(
        "sharedInstance", +[](qbv::id, qbv::SEL) -> qbv::id { return instance; });
  }
  static inline std::vector<std::string> asked;
  static inline std::vector<std::string> handedBack;
  static inline std::string requestId = "id";
  static inline std::function<void()> whileHandling;

  static inline bool keepsLogs = false;
  qbv::ScriptedPlatform system;
};
