// The handles of a device registry: iterators and entries.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "vitalscope/platform/devices.h"

namespace qbv {

// A registry whose entries are known by class and name; a backend says which there are and what they hold. No
// lock is held while it is asked.
class QBV_EXPORT RegistryTable : public Devices {
 public:
  KernReturn IOServiceGetMatchingServices(const Value& matching, IOIterator& existing) override;
  IOObject IOIteratorNext(IOIterator iterator) override;
  void IOIteratorReset(IOIterator iterator) override;
  Value IORegistryEntryCreateCFProperty(IOObject entry, const std::string& key) override;
  KernReturn IORegistryEntryCreateCFProperties(IOObject entry, Value& properties) override;
  void IOObjectRelease(IOObject object) override;

  // Handles that wait for their release.
  std::size_t objectCount();

 protected:
  // Names of a class's entries in their order; nothing when that cannot be told now.
  virtual std::optional<std::vector<std::string>> entriesOfClass(const std::string& className) = 0;
  // An entry's dictionary; nil when it has gone or cannot be read.
  virtual Value propertiesOfEntry(const std::string& className, const std::string& name) = 0;

 private:
  struct Entry {
    std::string className;
    std::string name;
  };
  struct Iterator {
    std::string className;
    std::vector<std::string> names;
    std::size_t next = 0;
  };

  // With the lock held.
  IOObject keep(std::variant<Entry, Iterator> object);
  Iterator* iteratorOf(IOIterator handle);
  std::optional<Entry> entryOf(IOObject handle);

  std::mutex lock_;
  IOObject lastHandle_ = 0;
  std::map<IOObject, std::variant<Entry, Iterator>> objects_;
};

}  // namespace qbv
