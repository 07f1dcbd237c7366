#include "tools/report_reader/diagnostic_folder.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string_view>

namespace qbv::reader {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kLargestFile = std::size_t{64} * 1024 * 1024;
constexpr std::array<std::string_view, 5> kLevels = {"light", "moderate", "heavier", "severe", "freeze"};

struct FolderKind {
  std::string_view folder;
  FileKind kind;
};
constexpr std::array<FolderKind, 8> kFolders = {{{"freeze", FileKind::hang},
                                                 {"app_memory_oversize", FileKind::memory},
                                                 {"object_memory_oversize", FileKind::allocation},
                                                 {"leaks", FileKind::leaks},
                                                 {"power", FileKind::power},
                                                 {"sample_log", FileKind::sample},
                                                 {"inspect_info_record", FileKind::record},
                                                 {"dump", FileKind::stacks}}};

FileKind kindOf(std::string_view folder, std::string_view name) {
  if (name.ends_with("_inspect_info_record.hang") || name.ends_with("_anr_records.crash"))
    return FileKind::record;
  const auto found =
      std::find_if(kFolders.begin(), kFolders.end(), [&](const FolderKind& f) { return f.folder == folder; });
  if (found == kFolders.end()) return FileKind::other;
  if (found->kind == FileKind::record) return name.ends_with(".html") ? FileKind::profile : FileKind::other;
  if (found->kind == FileKind::stacks) return name.ends_with(".mmap") ? FileKind::stacks : FileKind::other;
  return name.ends_with(".hang") ? found->kind : FileKind::other;
}

// The report id in a name, as date and time; "" when there is none.
std::string timeInName(std::string_view name) {
  constexpr std::string_view kShape = "dddd-dd-dd_dd_dd_dd";
  const auto fits = [&](std::size_t at) {
    for (std::size_t i = 0; i < kShape.size(); ++i)
      if (kShape[i] == 'd' ? !std::isdigit(static_cast<unsigned char>(name[at + i]))
                           : name[at + i] != kShape[i])
        return false;
    return true;
  };
  for (std::size_t at = 0; at + kShape.size() <= name.size(); ++at) {
    if (!fits(at)) continue;
    std::string time(name.substr(at, kShape.size()));
    time[10] = ' ';
    time[13] = time[16] = ':';
    return time;
  }
  return "";
}

std::string changeTime(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return "";
  std::tm fields{};
  ::localtime_r(&status.st_mtime, &fields);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
  return text;
}

std::optional<std::uint32_t> processNumber(std::string_view text) {
  std::uint32_t value = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || stop != text.data() + text.size() || value == 0) return std::nullopt;
  return value;
}

class Lister {
 public:
  Lister(const std::string& root, std::vector<std::string>& errors) : root_(root), errors_(errors) {}

  void folder(const fs::path& path) {
    std::error_code error;
    fs::directory_iterator entries(path, error);
    for (; !error && entries != fs::directory_iterator(); entries.increment(error)) entry(*entries);
    if (error) errors_.push_back("cannot read " + path.string() + ": " + error.message());
  }

  std::vector<DiagnosticFile> files;

 private:
  void entry(const fs::directory_entry& entry) {
    std::error_code error;
    const fs::file_status status = entry.symlink_status(error);
    if (fs::is_directory(status)) return folder(entry.path());
    if (!fs::is_regular_file(status)) return;
    DiagnosticFile file = classify(entry.path().lexically_relative(root_).string());
    file.path = entry.path().string();
    if (file.time.empty()) file.time = changeTime(file.path);
    files.push_back(std::move(file));
  }

  fs::path root_;
  std::vector<std::string>& errors_;
};

struct OpenFile {
  int descriptor;
  ~OpenFile() {
    if (descriptor >= 0) ::close(descriptor);
  }
};

std::optional<std::string> readAll(int descriptor) {
  std::string text;
  char buffer[65536];
  while (text.size() <= kLargestFile) {
    const ssize_t count = ::read(descriptor, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return std::nullopt;
    if (count == 0) return text;
    text.append(buffer, static_cast<std::size_t>(count));
  }
  errno = EFBIG;
  return std::nullopt;
}

}  // namespace

const char* kindName(FileKind kind) {
  constexpr std::array names = {"hang",   "memory", "allocation", "leaks",  "power",
                                "sample", "record", "profile",    "stacks", "other"};
  return names[static_cast<std::size_t>(kind)];
}

bool isReportKind(FileKind kind) {
  return kind == FileKind::hang || kind == FileKind::memory || kind == FileKind::allocation ||
         kind == FileKind::power;
}

std::string diagnosticRoot() {
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home != '/') {  // as the monitors see it
    const passwd* const user = ::getpwuid(::geteuid());
    home = user == nullptr ? nullptr : user->pw_dir;
  }
  return home == nullptr || *home == '\0' ? "" : std::string(home) + "/Library/Logs/quibapp/Diagnostic";
}

DiagnosticFile classify(const std::string& pathBelowRoot) {
  std::vector<std::string> parts;
  for (const auto& part : fs::path(pathBelowRoot)) parts.push_back(part.string());
  DiagnosticFile file;
  if (parts.size() < 2) return file;
  file.processId = processNumber(parts.front()).value_or(0);
  file.time = timeInName(parts.back());
  if (parts.size() < 3) return file;
  file.kind = kindOf(parts[1], parts.back());
  if (file.kind == FileKind::hang && parts.size() == 4 &&
      std::find(kLevels.begin(), kLevels.end(), parts[2]) != kLevels.end())
    file.level = parts[2];
  return file;
}

std::vector<DiagnosticFile> listDiagnosticFiles(const std::string& root,
                                                std::optional<std::uint32_t> processId,
                                                std::vector<std::string>& errors) {
  const fs::path start = processId ? fs::path(root) / std::to_string(*processId) : fs::path(root);
  std::error_code error;
  if (!fs::exists(start, error) && !error) return {};
  Lister lister(root, errors);
  lister.folder(start);
  std::sort(lister.files.begin(), lister.files.end(), [](const DiagnosticFile& a, const DiagnosticFile& b) {
    return a.time != b.time ? a.time > b.time : a.path < b.path;
  });
  return std::move(lister.files);
}

std::optional<std::string> readReportFile(const std::string& path, std::string& error) {
  const OpenFile file{::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)};
  struct stat status {};
  if (file.descriptor < 0 || ::fstat(file.descriptor, &status) != 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    error = path + " is no regular file";
    return std::nullopt;
  }
  std::optional<std::string> text = readAll(file.descriptor);
  if (!text) error = "cannot read " + path + ": " + std::strerror(errno);
  return text;
}

}  // namespace qbv::reader
