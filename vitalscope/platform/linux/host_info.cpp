#include "vitalscope/platform/host_info.h"

#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <map>
#include <mutex>
#include <string_view>

#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {
namespace {

utsname systemFacts() {
  utsname facts{};
  ::uname(&facts);
  return facts;
}

// The kernel marks the path of a program whose file was replaced, as an update does.
std::string withoutDeletedMark(const std::string& path) {
  constexpr std::string_view mark = " (deleted)";
  struct stat status;
  if (!path.ends_with(mark) || ::stat(path.c_str(), &status) == 0) return path;
  return path.substr(0, path.size() - mark.size());
}

std::string executablePath() {
  std::array<char, PATH_MAX> path;
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  if (length <= 0) return program_invocation_short_name;
  return withoutDeletedMark(std::string(path.data(), static_cast<std::size_t>(length)));
}

class LinuxHostInfo final : public HostInfo {
 public:
  std::string processName() override {
    const std::string path = executablePath();
    return path.substr(path.find_last_of('/') + 1);
  }

  int processIdentifier() override { return ::getpid(); }
  int parentProcessIdentifier() override { return ::getppid(); }

  std::optional<std::string> hostName() override {
    const utsname facts = systemFacts();
    if (facts.nodename[0] == '\0') return std::nullopt;
    return facts.nodename;
  }

  std::string systemName() override { return "Linux"; }

  // The kernel's release, "6.1.0-18-amd64"; one like "6.18-rc1" has patch 0.
  std::optional<OperatingSystemVersion> operatingSystemVersion() override {
    OperatingSystemVersion version;
    const utsname facts = systemFacts();
    const int numbers =
        std::sscanf(facts.release, "%d.%d.%d", &version.major, &version.minor, &version.patch);
    if (numbers < 2) return std::nullopt;
    return version;
  }

  std::string localArchitecture() override { return systemFacts().machine; }

  std::optional<std::string> infoDictionaryValue(const std::string& key) override {
    const std::lock_guard guard(mutex_);
    const auto found = infoDictionary_.find(key);
    if (found == infoDictionary_.end()) return std::nullopt;
    return found->second;
  }

  void setInfoDictionaryValue(const std::string& key, const std::string& value) override {
    const std::lock_guard guard(mutex_);
    infoDictionary_[key] = value;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::string> infoDictionary_;
};

}  // namespace

HostInfo& hostInfo() {
  static auto* const area = new LinuxHostInfo;
  return *area;
}

}  // namespace qbv::linux_backend
