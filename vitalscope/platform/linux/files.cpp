#include "vitalscope/platform/files.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/file_tree.h"

namespace qbv::linux_backend {
namespace {

constexpr mode_t fileMode = 0600;
constexpr std::size_t leastBuffer = 4096;  // for files that do not say how long they are
constexpr double nanosecondsPerSecond = 1e9;

int errorOf(int result) {
  return result == 0 ? 0 : errno;
}

Descriptor openPath(const std::string& path, int flags) {
  return Descriptor(retried([&] { return ::open(path.c_str(), flags | O_CLOEXEC, fileMode); }));
}

// A new file gets its mode whatever the umask; the mode of one that was there stays.
Descriptor openForWriting(const std::string& path, bool truncate) {
  const int flags = O_RDWR | O_NONBLOCK;
  if (Descriptor made = openPath(path, flags | O_CREAT | O_EXCL)) {
    ::fchmod(made.get(), fileMode);
    return made;
  }
  return errno == EEXIST ? openPath(path, flags | (truncate ? O_TRUNC : 0)) : Descriptor();
}

// Another folder on the way may be another file system, so the new file is made beside the old.
std::string temporaryNameBeside(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + ".quibvitalscope-XXXXXX";
}

bool fill(int descriptor, const std::string& content) {
  Descriptor file(descriptor);
  return ::fchmod(file.get(), fileMode) == 0 && writeAll(file.get(), content) && file.reset();
}

std::optional<std::string> readAll(int descriptor, std::size_t expectedSize) {
  std::string content(std::max(expectedSize + 1, leastBuffer), '\0');
  std::size_t length = 0;
  for (;;) {
    if (length == content.size()) content.resize(content.size() * 2);
    const ssize_t got =
        retried([&] { return ::read(descriptor, content.data() + length, content.size() - length); });
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    length += static_cast<std::size_t>(got);
  }
  content.resize(length);
  return content;
}

std::optional<std::string> homeOfPasswordDatabase() {
  passwd entry;
  passwd* found = nullptr;
  std::string buffer(1024, '\0');
  while (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (found == nullptr || found->pw_dir == nullptr || *found->pw_dir == '\0') return std::nullopt;
  return found->pw_dir;
}

std::string withoutTrailingSlashes(const std::string& path) {
  return path.substr(0, path.find_last_not_of('/') + 1);
}

class LinuxFiles final : public Files {
 public:
  std::optional<std::string> homeDirectory() override {
    const char* const home = std::getenv("HOME");
    return home != nullptr && *home == '/' ? std::optional<std::string>(home) : homeOfPasswordDatabase();
  }

  bool fileExists(const std::string& path) override {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0;
  }

  bool isDirectory(const std::string& path) override {
    struct stat status;
    return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  }

  bool createDirectory(const std::string& path) override { return makeFolder(path); }
  bool createFile(const std::string& path) override { return bool{openForWriting(path, true)}; }

  bool writeAtomically(const std::string& path, const std::string& content) override {
    std::string temporary = temporaryNameBeside(path);
    const int descriptor = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (descriptor < 0) return false;
    if (fill(descriptor, content) && ::rename(temporary.c_str(), path.c_str()) == 0) return true;
    ::unlink(temporary.c_str());
    return false;
  }

  std::optional<std::string> read(const std::string& path) override {
    const Descriptor file = openPath(path, O_RDONLY | O_NONBLOCK);
    struct stat status;
    if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
    return readAll(file.get(), static_cast<std::size_t>(status.st_size));
  }

  std::vector<std::string> contentsOfDirectory(const std::string& path) override {
    Descriptor folder = openPath(path, O_RDONLY | O_DIRECTORY);
    if (!folder) return {};
    return namesInFolder(folder.release()).value_or(std::vector<std::string>{});
  }

  bool remove(const std::string& path) override {
    const std::string name = withoutTrailingSlashes(path);
    return !name.empty() && removeTree(AT_FDCWD, name);
  }

  std::optional<AbsoluteTime> creationDate(const std::string& path) override {
    struct statx status;
    if (::statx(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME | STATX_MTIME, &status) != 0) {
      return std::nullopt;
    }
    const statx_timestamp& date = (status.stx_mask & STATX_BTIME) != 0 ? status.stx_btime : status.stx_mtime;
    return static_cast<double>(date.tv_sec) - kCFAbsoluteTimeIntervalSince1970 +
           date.tv_nsec / nanosecondsPerSecond;
  }

  int open(const std::string& path, bool truncate) override {
    return openForWriting(path, truncate).release();
  }

  std::optional<std::uint64_t> size(int descriptor) override {
    struct stat status;
    if (::fstat(descriptor, &status) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(status.st_size);
  }

  int setSize(int descriptor, std::uint64_t size) override;

  int sync(int descriptor) override {
    return errorOf(retried([&] { return ::fsync(descriptor); }));
  }
  void close(int descriptor) override { ::close(descriptor); }

  int map(int descriptor, std::uint64_t size, void** mapping) override {
    void* const start = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    *mapping = start == MAP_FAILED ? nullptr : start;
    return start == MAP_FAILED ? errno : 0;
  }

  void unmap(void* mapping, std::uint64_t size) override { ::munmap(mapping, size); }
};

// What is gained is allocated at once: a store into a shared mapping of a file without blocks would end the
// process when the disk is full.
int LinuxFiles::setSize(int descriptor, std::uint64_t size) {
  const std::optional<std::uint64_t> old = this->size(descriptor);
  if (!old) return errno;
  const auto from = static_cast<off_t>(*old);
  const auto to = static_cast<off_t>(size);
  if (to > from) {
    const int result = retried([&] { return ::fallocate(descriptor, 0, from, to - from); });
    if (result == 0) return 0;
    int error = errno;
    // A file system that cannot reserve is made to by writing into every block.
    if (error == EOPNOTSUPP || error == ENOSYS) error = ::posix_fallocate(descriptor, from, to - from);
    if (error != 0 && ::ftruncate(descriptor, from) != 0) return errno;
    return error;
  }
  return errorOf(retried([&] { return ::ftruncate(descriptor, to); }));
}

}  // namespace

Files& files() {
  static auto* const area = new LinuxFiles;
  return *area;
}

}  // namespace qbv::linux_backend
