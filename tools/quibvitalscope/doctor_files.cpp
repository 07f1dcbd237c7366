#include <fcntl.h>
#include <gnu/libc-version.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "host/control/socket_place.h"
#include "tools/leaks/known_library.h"
#include "tools/quibvitalscope/doctor_checks.h"
#include "tools/quibvitalscope/install_place.h"
#include "tools/report_reader/diagnostic_folder.h"

namespace qbv::cli {
namespace {

namespace fs = std::filesystem;
using State = Check::State;

// The folder itself, or the nearest one above it that exists.
std::string existing(const std::string& folder) {
  std::error_code error;
  fs::path path = folder;
  while (!path.empty() && path != path.parent_path() && !fs::exists(path, error)) path = path.parent_path();
  return path.string();
}

// By doing it: permission bits do not tell of file systems that take no folders.
bool takesFolders(const std::string& place) {
  std::string probe = place + "/.quibvitalscope-XXXXXX";
  return ::mkdtemp(probe.data()) != nullptr && ::rmdir(probe.c_str()) == 0;
}

Check logFolder() {
  Check check{"log-folder", State::missing, true, "", "keeping reports", ""};
  const std::string root = reader::diagnosticRoot();
  const std::string place = existing(root);
  if (!root.empty() && takesFolders(place)) {
    check.state = State::works;
    check.finding = root + (place == root ? "" : " (not there yet, can be made)");
  } else {
    check.finding =
        root.empty() ? "no home folder" : "cannot write to " + place + ": " + std::strerror(errno);
    check.fallback = "none: every report is lost";
  }
  return check;
}

Check creationDate() {
  Check check{"creation-date",
              State::works,
              false,
              "the file system keeps creation dates",
              "removing the oldest reports",
              ""};
  const std::string place = existing(reader::diagnosticRoot());
  struct statx status {};
  const int result = ::statx(AT_FDCWD, place.c_str(), 0, STATX_BTIME, &status);
  if (result == 0 && (status.stx_mask & STATX_BTIME) != 0) return check;
  check.state = State::limited;
  check.finding = "the file system of " + place + " keeps no creation dates";
  check.fallback = "the date of a file's last change is taken";
  return check;
}

Check controlFolder() {
  Check check{"control-socket", State::missing, false, "", "'post': notifications from outside", ""};
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || runtime[0] != '/') {
    check.finding = "XDG_RUNTIME_DIR is not set";
  } else if (control::SocketFolder::open(false)) {
    check.finding = std::string(runtime) + "/quibvitalscope";
    check.state = State::works;
  } else {
    const std::string path = std::string(runtime) + "/quibvitalscope";
    const bool missing = ::access(path.c_str(), F_OK) != 0;
    const bool canBeMade = missing && ::access(runtime, W_OK | X_OK) == 0;
    check.state = canBeMade ? State::works : State::missing;
    check.finding = path + (canBeMade ? " (not there yet, can be made)"
                            : missing ? " cannot be made"
                                      : " is not this user's alone");
  }
  if (check.state == State::missing) check.fallback = "monitored programs run, but take no notifications";
  return check;
}

Check library() {
  Check check{"library", State::works, true, standInLibrary(), "'run', which loads it into programs", ""};
  if (!check.finding.empty()) return check;
  check.state = State::missing;
  check.finding = QBV_STANDIN_NAME " is not where this program expects it";
  check.fallback = "none: the installation is incomplete";
  return check;
}

Check companion(const std::string& name, const std::string& purpose, const std::string& fallback) {
  Check check{name, State::works, false, companionTool(name), purpose, ""};
  if (!check.finding.empty()) return check;
  check.state = State::missing;
  check.finding = "the companion tool is not installed";
  check.fallback = fallback;
  return check;
}

Check cLibrary() {
  const std::string version = ::gnu_get_libc_version();
  Check check{"c-library", State::works, false, "version " + version, "leak checks: its heap is read", ""};
  if (leaks::isKnownLibrary(version)) return check;
  check.state = State::limited;
  check.finding += ", whose heap's layout is not known";
  check.fallback = "leak checks are refused";
  return check;
}

}  // namespace

std::vector<Check> fileChecks() {
  return {logFolder(), creationDate(), controlFolder()};
}

std::vector<Check> toolChecks() {
  return {library(),
          companion("sample", "a call sample beside each hang report", "hang reports come without samples"),
          companion("leaks", "leak checks after a meeting", "no leak reports"), cLibrary()};
}

}  // namespace qbv::cli
