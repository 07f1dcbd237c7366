// Facts about a host that the test makes up.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "vitalscope/platform/host_info.h"

namespace qbv {

struct ScriptedHostFacts {
  std::string processName = "quibhost";
  int processIdentifier = 4242;
  int parentProcessIdentifier = 1;
  std::optional<std::string> hostName = "quibhost.local";
  std::string systemName = "macOS";
  std::optional<OperatingSystemVersion> operatingSystemVersion = OperatingSystemVersion{14, 2, 0};
  std::string localArchitecture = "arm64";
};

// Any thread. No bundle facts at first.
class ScriptedHostInfo final : public HostInfo {
 public:
  std::string processName() override;
  int processIdentifier() override;
  int parentProcessIdentifier() override;
  std::optional<std::string> hostName() override;
  std::string systemName() override;
  std::optional<OperatingSystemVersion> operatingSystemVersion() override;
  std::string localArchitecture() override;
  std::optional<std::string> infoDictionaryValue(const std::string& key) override;
  void setInfoDictionaryValue(const std::string& key, const std::string& value) override;

  ScriptedHostFacts facts() const;
  void setFacts(const ScriptedHostFacts& facts);
  void removeInfoDictionaryValue(const std::string& key);

 private:
  mutable std::mutex mutex_;
  ScriptedHostFacts facts_;
  std::map<std::string, std::string> info_;
};

}  // namespace qbv
