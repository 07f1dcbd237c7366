#include "vitalscope/platform/linux/file_tree.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::linux_backend {
namespace {

constexpr mode_t folderMode = 0700;

struct CloseFolder {
  void operator()(DIR* folder) const { ::closedir(folder); }
};

bool isFolder(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string parentOf(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  const std::size_t slash = end == std::string::npos ? std::string::npos : path.find_last_of('/', end);
  if (slash == std::string::npos) return {};
  const std::size_t parentEnd = path.find_last_not_of('/', slash);
  return parentEnd == std::string::npos ? std::string() : path.substr(0, parentEnd + 1);
}

// The umask takes bits away from the mode asked for.
bool makeOneFolder(const std::string& path) {
  return ::mkdir(path.c_str(), folderMode) == 0 && ::chmod(path.c_str(), folderMode) == 0;
}

}  // namespace

bool makeFolder(const std::string& path) {
  if (makeOneFolder(path)) return true;
  if (errno == ENOENT) {
    const std::string parent = parentOf(path);
    if (!parent.empty() && makeFolder(parent) && makeOneFolder(path)) return true;
  }
  return isFolder(path);
}

std::optional<std::vector<std::string>> namesInFolder(int descriptor) {
  const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(descriptor));
  if (folder == nullptr) {
    Descriptor(descriptor).reset();
    return std::nullopt;
  }
  std::vector<std::string> names;
  errno = 0;
  while (const dirent* const entry = ::readdir(folder.get())) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  if (errno != 0) return std::nullopt;
  return names;
}

bool removeTree(int folder, const std::string& name) {
  if (::unlinkat(folder, name.c_str(), 0) == 0) return true;
  if (errno != EISDIR && errno != EPERM) return false;
  Descriptor inside(::openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!inside) return false;
  // The list closes its descriptor, the removal below needs one.
  const auto names = namesInFolder(::fcntl(inside.get(), F_DUPFD_CLOEXEC, 0));
  bool emptied = names.has_value();
  if (names) {
    for (const std::string& entry : *names) emptied = removeTree(inside.get(), entry) && emptied;
  }
  return emptied && ::unlinkat(folder, name.c_str(), AT_REMOVEDIR) == 0;
}

}  // namespace qbv::linux_backend
