#include "vitalscope/platform/scripted/scripted_devices.h"

#include <algorithm>

namespace qbv {

void ScriptedDevices::setEntry(const std::string& className, const std::string& name, Value properties) {
  const std::lock_guard lock(lock_);
  Entries& entries = classes_[className];
  const auto found = std::ranges::find(entries, name, &Entries::value_type::first);
  if (found == entries.end())
    entries.emplace_back(name, std::move(properties));
  else
    found->second = std::move(properties);
}

void ScriptedDevices::removeEntry(const std::string& className, const std::string& name) {
  const std::lock_guard lock(lock_);
  std::erase_if(classes_[className], [&name](const auto& entry) { return entry.first == name; });
}

void ScriptedDevices::setLookupFails(bool fails) {
  const std::lock_guard lock(lock_);
  lookupFails_ = fails;
}

void ScriptedDevices::setDiskIO(std::optional<ProcessDiskIO> account) {
  const std::lock_guard lock(lock_);
  account_ = account;
}

std::optional<ProcessDiskIO> ScriptedDevices::diskIOOfProcess() {
  const std::lock_guard lock(lock_);
  return account_;
}

std::optional<std::vector<std::string>> ScriptedDevices::entriesOfClass(const std::string& className) {
  const std::lock_guard lock(lock_);
  if (lookupFails_) return std::nullopt;
  std::vector<std::string> names;
  for (const auto& [name, properties] : classes_[className]) names.push_back(name);
  return names;
}

Value ScriptedDevices::propertiesOfEntry(const std::string& className, const std::string& name) {
  const std::lock_guard lock(lock_);
  const Entries& entries = classes_[className];
  const auto found = std::ranges::find(entries, name, &Entries::value_type::first);
  return found == entries.end() ? Value() : found->second;
}

}  // namespace qbv
