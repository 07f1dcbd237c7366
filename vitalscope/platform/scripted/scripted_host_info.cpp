#include "vitalscope/platform/scripted/scripted_host_info.h"

namespace qbv {

std::string ScriptedHostInfo::processName() {
  return facts().processName;
}

int ScriptedHostInfo::processIdentifier() {
  return facts().processIdentifier;
}

int ScriptedHostInfo::parentProcessIdentifier() {
  return facts().parentProcessIdentifier;
}

std::optional<std::string> ScriptedHostInfo::hostName() {
  return facts().hostName;
}

std::string ScriptedHostInfo::systemName() {
  return facts().systemName;
}

std::optional<OperatingSystemVersion> ScriptedHostInfo::operatingSystemVersion() {
  return facts().operatingSystemVersion;
}

std::string ScriptedHostInfo::localArchitecture() {
  return facts().localArchitecture;
}

std::optional<std::string> ScriptedHostInfo::infoDictionaryValue(const std::string& key) {
  const std::lock_guard lock(mutex_);
  const auto found = info_.find(key);
  if (found == info_.end()) return std::nullopt;
  return found->second;
}

void ScriptedHostInfo::setInfoDictionaryValue(const std::string& key, const std::string& value) {
  const std::lock_guard lock(mutex_);
  info_[key] = value;
}

void ScriptedHostInfo::removeInfoDictionaryValue(const std::string& key) {
  const std::lock_guard lock(mutex_);
  info_.erase(key);
}

ScriptedHostFacts ScriptedHostInfo::facts() const {
  const std::lock_guard lock(mutex_);
  return facts_;
}

void ScriptedHostInfo::setFacts(const ScriptedHostFacts& facts) {
  const std::lock_guard lock(mutex_);
  facts_ = facts;
}

}  // namespace qbv
