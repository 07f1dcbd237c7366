#include "vitalscope/platform/files.h"
#include "vitalscope/platform/platform.h"

namespace qbv {

std::string expandingTildeInPath(const std::string& path) {
  if (path != "~" && !path.starts_with("~/")) return path;
  std::optional<std::string> home = platform().files.homeDirectory();
  if (!home || home->empty()) return path;
  while (home->size() > 1 && home->back() == '/') home->pop_back();
  if (*home == "/") return path.size() > 1 ? path.substr(1) : *home;
  return *home + path.substr(1);
}

}  // namespace qbv
