// Facts about this process, this machine and the host application.
#pragma once

#include <optional>
#include <string>

#include "vitalscope/platform/export.h"

namespace qbv {

struct OperatingSystemVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
};

// Any thread, not in signal handlers.
class QBV_EXPORT HostInfo {
 public:
  virtual ~HostInfo() = default;
  virtual std::string processName() = 0;
  virtual int processIdentifier() = 0;
  virtual int parentProcessIdentifier() = 0;
  virtual std::optional<std::string> hostName() = 0;
  virtual std::string systemName() = 0;  // "macOS", "Linux"
  virtual std::optional<OperatingSystemVersion> operatingSystemVersion() = 0;
  virtual std::string localArchitecture() = 0;  // "x86_64"; "" when not known

  // The host's bundle facts: "CFBundleIdentifier", "CFBundleVersion", "CFBundleShortVersionString",
  // "CFBundleExecutable", "CFBundleName". What the host gave; nothing for a key it did not give.
  virtual std::optional<std::string> infoDictionaryValue(const std::string& key) = 0;
  virtual void setInfoDictionaryValue(const std::string& key, const std::string& value) = 0;
};

}  // namespace qbv
