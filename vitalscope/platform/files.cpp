#include "vitalscope/platform/files.h"

#include "vitalscope/platform/platform.h"

namespace qbv {

std::string expandingTildeInPath(const std::string& path) {
  if (path != "~" && !path.starts_with("~/")) return path;
  const std::optional<std::string> home = platform().files.homeDirectory();
  return home ? *home + path.substr(1) : path;
}

}  // namespace qbv
