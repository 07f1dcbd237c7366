// The machine's devices: a registry of entries with properties.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/task.h"
#include "vitalscope/platform/value.h"

namespace qbv {

// Handles; 0 is none. Whoever got one releases it.
using IOObject = std::uint32_t;
using IOIterator = std::uint32_t;

// A power source. Integers: "AppleRawMaxCapacity" and "AppleRawCurrentCapacity" (mAh, or percent where a
// battery tells nothing else), "Amperage" (mA, negative while it discharges), "Voltage" (mV), "TimeRemaining"
// (minutes until it is empty or, while it charges, full). Booleans: "IsCharging", "FullyCharged",
// "ExternalConnected". What the machine does not tell is left out.
inline constexpr const char* kIOPMPowerSource = "IOPMPowerSource";
inline constexpr std::int64_t kIOPMTimeRemainingUnknown = 65535;
// A drive that counts. "Statistics" is a dictionary with the integers "Bytes (Read)" and "Bytes (Write)",
// since the machine's start or the drive's arrival.
inline constexpr const char* kIOBlockStorageDriver = "IOBlockStorageDriver";

// What the storage has read and written for a process, in bytes since its start.
struct ProcessDiskIO {
  std::uint64_t bytesRead = 0;
  std::uint64_t bytesWritten = 0;
};

// Any thread, not in signal handlers. An unknown or released handle does nothing and has nothing.
class QBV_EXPORT Devices {
 public:
  virtual ~Devices() = default;

  // KERN_SUCCESS and an iterator over the entries that match now, also when there are none; else an error and
  // 0. linux: power sources are ordered by current, the one that gives most comes last; drives by name.
  virtual KernReturn IOServiceGetMatchingServices(const Value& matching, IOIterator& existing) = 0;
  // The next entry, 0 after the last one.
  virtual IOObject IOIteratorNext(IOIterator iterator) = 0;
  // Back to the beginning, with the entries that match by then: one that has come meanwhile is met, one that
  // has gone is not.
  virtual void IOIteratorReset(IOIterator iterator) = 0;

  // A copy of one property or of all, as they are now; nil or an error when there are none. An entry that has
  // gone has none.
  virtual Value IORegistryEntryCreateCFProperty(IOObject entry, const std::string& key) = 0;
  virtual KernReturn IORegistryEntryCreateCFProperties(IOObject entry, Value& properties) = 0;

  virtual void IOObjectRelease(IOObject object) = 0;

  // The own process's part in the drives' traffic; nothing when the kernel keeps no account of it.
  virtual std::optional<ProcessDiskIO> diskIOOfProcess() = 0;
};

// What to look for: services of a class. Any thread.
QBV_EXPORT Value IOServiceMatching(const std::string& className);

}  // namespace qbv
