#include "vitalscope/platform/scripted/scripted_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace qbv {

namespace fs = std::filesystem;

namespace {

std::string makeHome() {
  std::error_code error;
  const fs::path base = fs::temp_directory_path(error);
  std::string pattern = (error ? fs::path("/tmp") : base) / "quibplatform.XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) std::abort();
  return pattern;
}

bool writeAll(int descriptor, const std::string& content) {
  for (std::size_t done = 0; done < content.size();) {
    const ssize_t part = ::write(descriptor, content.data() + done, content.size() - done);
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) return false;
    done += static_cast<std::size_t>(part);
  }
  return true;
}

bool makeFolders(const std::string& path) {
  std::error_code error;
  if (fs::is_directory(path, error)) return true;
  const std::string parent = fs::path(path).parent_path().string();
  if (!parent.empty() && parent != path && !makeFolders(parent)) return false;
  return ::mkdir(path.c_str(), 0700) == 0 || (errno == EEXIST && fs::is_directory(path, error));
}

bool replaceFile(const std::string& path, const std::string& content) {
  std::string fresh = path + ".XXXXXX";
  const int descriptor = ::mkostemp(fresh.data(), O_CLOEXEC);  // 0600
  if (descriptor < 0) return false;
  const bool written = writeAll(descriptor, content);
  ::close(descriptor);
  if (written && ::rename(fresh.c_str(), path.c_str()) == 0) return true;
  ::unlink(fresh.c_str());
  return false;
}

}  // namespace

ScriptedFiles::ScriptedFiles(ScriptedClock& clock) : clock_(clock), home_(makeHome()), homeAnswer_(home_) {}

ScriptedFiles::~ScriptedFiles() {
  std::error_code error;
  fs::remove_all(home_, error);
}

std::optional<std::string> ScriptedFiles::homeDirectory() {
  const std::lock_guard lock(mutex_);
  return homeAnswer_;
}

bool ScriptedFiles::fileExists(const std::string& path) {
  std::error_code error;
  return fs::exists(path, error);
}

bool ScriptedFiles::isDirectory(const std::string& path) {
  std::error_code error;
  return fs::is_directory(path, error);
}

bool ScriptedFiles::createDirectory(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::createDirectory, path) != 0) return false;
  const bool isNew = !isDirectory(path);
  const bool made = makeFolders(normalised(path));
  if (made && isNew) noteCreated(path);
  return finish(made);
}

bool ScriptedFiles::createFile(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::createFile, path) != 0) return false;
  const int descriptor = openFile(path, /*truncate=*/true);
  if (descriptor >= 0) ::close(descriptor);
  return finish(descriptor >= 0);
}

bool ScriptedFiles::writeAtomically(const std::string& path, const std::string& content) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::writeAtomically, path) != 0) return false;
  const bool written = replaceFile(path, content);
  if (written) noteCreated(path);
  return finish(written);
}

std::optional<std::string> ScriptedFiles::read(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::read, path) != 0) return std::nullopt;
  std::ifstream file(path, std::ios::binary);
  if (!finish(file.is_open() && !isDirectory(path))) return std::nullopt;
  return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::string> ScriptedFiles::contentsOfDirectory(const std::string& path) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> names;
  if (begin(FileCall::contentsOfDirectory, path) != 0) return names;
  std::error_code error;
  fs::directory_iterator entry(path, error);
  if (!finish(!error)) return names;
  for (; !error && entry != fs::directory_iterator(); entry.increment(error))
    names.push_back(entry->path().filename().string());
  std::ranges::sort(names);
  return names;
}

bool ScriptedFiles::remove(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::remove, path) != 0) return false;
  std::error_code error;
  const std::uintmax_t count = fs::remove_all(path, error);
  const bool removed = !error && count > 0;
  if (removed) forget(path);
  return finish(removed);
}

std::optional<AbsoluteTime> ScriptedFiles::creationDate(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::creationDate, path) != 0 || !finish(fileExists(path))) return std::nullopt;
  const auto found = dates_.find(normalised(path));
  return found == dates_.end() ? std::optional(ScriptedClock::kStart) : found->second;
}

int ScriptedFiles::open(const std::string& path, bool truncate) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::open, path) != 0) return -1;
  const int descriptor = openFile(path, truncate);
  if (finish(descriptor >= 0)) descriptors_[descriptor] = path;
  return descriptor;
}

int ScriptedFiles::openFile(const std::string& path, bool truncate) {
  const bool isNew = !fileExists(path);
  const int descriptor = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : 0), 0600);
  if (descriptor >= 0 && isNew) {
    ::fchmod(descriptor, 0600);
    noteCreated(path);
  }
  return descriptor;
}

std::optional<std::uint64_t> ScriptedFiles::size(int descriptor) {
  const std::lock_guard lock(mutex_);
  if (begin(FileCall::size, pathOf(descriptor)) != 0) return std::nullopt;
  struct stat status {};
  if (!finish(::fstat(descriptor, &status) == 0)) return std::nullopt;
  return static_cast<std::uint64_t>(status.st_size);
}

int ScriptedFiles::setSize(int descriptor, std::uint64_t size) {
  const std::lock_guard lock(mutex_);
  if (const int error = begin(FileCall::setSize, pathOf(descriptor))) return error;
  return finish(::ftruncate(descriptor, static_cast<off_t>(size)) == 0) ? 0 : errno;
}

int ScriptedFiles::sync(int descriptor) {
  const std::lock_guard lock(mutex_);
  if (const int error = begin(FileCall::sync, pathOf(descriptor))) return error;
  return finish(::fsync(descriptor) == 0) ? 0 : errno;
}

void ScriptedFiles::close(int descriptor) {
  const std::lock_guard lock(mutex_);
  begin(FileCall::close, pathOf(descriptor));
  if (finish(descriptors_.erase(descriptor) > 0)) ::close(descriptor);
}

int ScriptedFiles::map(int descriptor, std::uint64_t size, void** mapping) {
  const std::lock_guard lock(mutex_);
  *mapping = nullptr;
  if (const int error = begin(FileCall::map, pathOf(descriptor))) return error;
  void* const mapped = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  if (!finish(mapped != MAP_FAILED)) return errno;
  mappings_[mapped] = size;
  *mapping = mapped;
  return 0;
}

void ScriptedFiles::unmap(void* mapping, std::uint64_t size) {
  const std::lock_guard lock(mutex_);
  begin(FileCall::unmap, "");
  const auto found = mappings_.find(mapping);
  if (!finish(found != mappings_.end() && found->second == size)) return;
  mappings_.erase(found);
  ::munmap(mapping, size);
}

}  // namespace qbv
