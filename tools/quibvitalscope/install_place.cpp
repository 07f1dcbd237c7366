#include "tools/quibvitalscope/install_place.h"

#include <unistd.h>

#include <filesystem>
#include <initializer_list>

namespace qbv::cli {
namespace {

namespace fs = std::filesystem;

// `folders` relative to the program's own.
std::string find(std::initializer_list<const char*> folders, const std::string& name) {
  std::error_code error;
  const fs::path program = fs::read_symlink("/proc/self/exe", error);
  for (const char* const folder : folders) {
    const fs::path path = (program.parent_path() / folder / name).lexically_normal();
    if (fs::is_regular_file(path, error)) return path.string();
  }
  return "";
}

}  // namespace

std::string standInLibrary() {
  return find({QBV_STANDIN_BUILT, QBV_STANDIN_INSTALLED}, QBV_STANDIN_NAME);
}

std::string companionTool(const std::string& name) {
  const std::string path = find({QBV_COMPANIONS_BUILT, QBV_COMPANIONS_INSTALLED}, name);
  return !path.empty() && ::access(path.c_str(), X_OK) == 0 ? path : "";
}

}  // namespace qbv::cli
