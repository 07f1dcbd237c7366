#include "vitalscope/platform/files.h"

#include "vitalscope/platform/platform.h"

namespace qbv {

std::string expandingTildeInPath(const std::string& path) {
  if (path != "~" && !path.starts_with("~/")) return path;
  std::optional<std::string> home = platform().files.homeDirectory();
  if (!home || home->empty()) return path;
  while (home->ends_with('/')) home->pop_back();
  const std::string expanded = *home + path.substr(1);
  return expanded.empty() ? "/" : expanded;
}

}  // namespace qbv
