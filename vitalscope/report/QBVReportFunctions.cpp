#include "vitalscope/report/QBVReportFunctions.h"

#include <array>
#include <string>

#include "vitalscope/platform/platform.h"

namespace {

struct LevelPaths {
  const char* level;
  const char* reasonAndLevel;
};
constexpr std::array<LevelPaths, 5> kLevels{{{"/light", "/freeze/light"},
                                             {"/moderate", "/freeze/moderate"},
                                             {"/heavier", "/freeze/heavier"},
                                             {"/severe", "/freeze/severe"},
                                             {"/freeze", "/freeze/freeze"}}};

bool isLevel(unsigned level) {
  return level >= 1 && level <= kLevels.size();
}

}  // namespace

const char* qbv_anr_level_path(unsigned level) {
  return isLevel(level) ? kLevels[level - 1].level : "";
}

const char* qbv_reason_path(QBVReportReason reason, unsigned level) {
  switch (reason) {
    case QBVReportReasonLeaks:
      return "/leaks";
    case QBVReportReasonAppMemoryOversize:
      return "/app_memory_oversize";
    case QBVReportReasonMainThreadBlock:
      return isLevel(level) ? kLevels[level - 1].reasonAndLevel : "/freeze";
    default:
      return "";
  }
}

const char* expanding_tilde_in_path(const char* path) {
  if (path == nullptr) return nullptr;
  thread_local std::string expanded;
  expanded = qbv::expandingTildeInPath(path);
  return expanded.c_str();
}

void removeDirectory(const char* path) {
  if (path == nullptr) return;
  qbv::Files& files = qbv::platform().files;
  if (files.fileExists(path)) files.remove(path);
}
