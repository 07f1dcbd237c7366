#include "vitalscope/platform/portable/registry_table.h"

#include <utility>

namespace qbv {

namespace {

constexpr const char* kProviderClass = "IOProviderClass";

}  // namespace

Value IOServiceMatching(const std::string& className) {
  return Value::Dictionary{{kProviderClass, className}};
}

KernReturn RegistryTable::IOServiceGetMatchingServices(const Value& matching, IOIterator& existing) {
  existing = 0;
  const std::string* const className = matching[kProviderClass].string();
  if (className == nullptr) return KERN_INVALID_ARGUMENT;
  auto names = entriesOfClass(*className);
  if (!names) return KERN_FAILURE;
  const std::lock_guard lock(lock_);
  existing = keep(Iterator{*className, *std::move(names)});
  return KERN_SUCCESS;
}

IOObject RegistryTable::IOIteratorNext(IOIterator iterator) {
  const std::lock_guard lock(lock_);
  Iterator* const found = iteratorOf(iterator);
  if (found == nullptr || found->next == found->names.size()) return 0;
  return keep(Entry{found->className, found->names[found->next++]});
}

void RegistryTable::IOIteratorReset(IOIterator iterator) {
  std::string className;
  {
    const std::lock_guard lock(lock_);
    Iterator* const found = iteratorOf(iterator);
    if (found == nullptr) return;
    found->next = 0;
    className = found->className;
  }
  auto names = entriesOfClass(className);
  if (!names) return;
  const std::lock_guard lock(lock_);
  if (Iterator* const found = iteratorOf(iterator); found != nullptr)
    *found = Iterator{className, *std::move(names)};
}

Value RegistryTable::IORegistryEntryCreateCFProperty(IOObject entry, const std::string& key) {
  Value properties;
  IORegistryEntryCreateCFProperties(entry, properties);
  return properties[key];
}

KernReturn RegistryTable::IORegistryEntryCreateCFProperties(IOObject entry, Value& properties) {
  properties = Value();
  std::optional<Entry> known;
  {
    const std::lock_guard lock(lock_);
    known = entryOf(entry);
  }
  if (!known) return KERN_INVALID_ARGUMENT;
  properties = propertiesOfEntry(known->className, known->name);
  return properties.isNil() ? KERN_FAILURE : KERN_SUCCESS;
}

void RegistryTable::IOObjectRelease(IOObject object) {
  const std::lock_guard lock(lock_);
  objects_.erase(object);
}

std::size_t RegistryTable::objectCount() {
  const std::lock_guard lock(lock_);
  return objects_.size();
}

IOObject RegistryTable::keep(std::variant<Entry, Iterator> object) {
  // Handles are used again after four thousand million, when most have long been released.
  do ++lastHandle_;
  while (lastHandle_ == 0 || objects_.contains(lastHandle_));
  objects_.emplace(lastHandle_, std::move(object));
  return lastHandle_;
}

RegistryTable::Iterator* RegistryTable::iteratorOf(IOIterator handle) {
  const auto found = objects_.find(handle);
  return found == objects_.end() ? nullptr : std::get_if<Iterator>(&found->second);
}

std::optional<RegistryTable::Entry> RegistryTable::entryOf(IOObject handle) {
  const auto found = objects_.find(handle);
  const Entry* const entry = found == objects_.end() ? nullptr : std::get_if<Entry>(&found->second);
  return entry == nullptr ? std::nullopt : std::optional(*entry);
}

}  // namespace qbv
