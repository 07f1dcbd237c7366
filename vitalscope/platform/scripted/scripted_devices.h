// A device registry whose entries the test puts there.
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "vitalscope/platform/portable/registry_table.h"

namespace qbv {

// Any thread.
class ScriptedDevices final : public RegistryTable {
 public:
  // Adds the entry at the end of its class or gives it other properties. nil: it is there but cannot be read.
  void setEntry(const std::string& className, const std::string& name, Value properties);
  void removeEntry(const std::string& className, const std::string& name);
  // Look-ups fail until they are let succeed again.
  void setLookupFails(bool fails);
  void setDiskIO(std::optional<ProcessDiskIO> account);

  std::optional<ProcessDiskIO> diskIOOfProcess() override;

 private:
  using Entries = std::vector<std::pair<std::string, Value>>;

  std::optional<std::vector<std::string>> entriesOfClass(const std::string& className) override;
  Value propertiesOfEntry(const std::string& className, const std::string& name) override;

  std::mutex lock_;
  std::map<std::string, Entries> classes_;
  bool lookupFails_ = false;
  std::optional<ProcessDiskIO> account_ = ProcessDiskIO();
};

}  // namespace qbv
