#include <filesystem>
#include <fstream>
#include <string>

#include "tools/quibvitalscope/doctor_checks.h"

namespace qbv::cli {
namespace {

namespace fs = std::filesystem;
using State = Check::State;

std::string content(const fs::path& path) {
  std::ifstream file(path);
  std::string word;
  file >> word;
  return word;
}

// Names of the folder's entries that `wanted` accepts, with blanks between.
template <class Predicate>
std::string entries(const char* folder, Predicate wanted) {
  std::string names;
  std::error_code error;
  for (fs::directory_iterator entry(folder, error); !error && entry != fs::directory_iterator();
       entry.increment(error))
    if (wanted(entry->path())) names += (names.empty() ? "" : " ") + entry->path().filename().string();
  return names;
}

bool isBattery(const fs::path& supply) {
  const std::string scope = content(supply / "scope");
  return content(supply / "type") == "Battery" && scope != "Device";
}

bool isDrive(const fs::path& device) {
  const std::string name = device.filename().string();
  const bool made = name.starts_with("loop") || name.starts_with("ram") || name.starts_with("zram");
  return !made && !content(device / "stat").empty();
}

Check found(const char* name, const std::string& names, const char* nothing, const char* purpose,
            const char* fallback) {
  if (names.empty()) return {name, State::limited, false, nothing, purpose, fallback};
  return {name, State::works, false, names, purpose, ""};
}

}  // namespace

std::vector<Check> deviceChecks() {
  return {found("battery", entries("/sys/class/power_supply", isBattery), "this machine has none",
                "reports of heavy battery draw", "the battery monitor has nothing to watch"),
          found("drives", entries("/sys/block", isDrive), "no drive tells its counters",
                "disk input and output", "the disk monitor has nothing to watch")};
}

}  // namespace qbv::cli
