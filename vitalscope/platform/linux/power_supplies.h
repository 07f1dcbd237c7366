// The machine's batteries as the kernel's folder of power supplies tells them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qbv::linux_backend {

// Nothing where the battery does not tell and it cannot be worked out.
struct Battery {
  std::optional<std::int64_t> fullCharge;        // mAh, or 100 where only a percentage is told
  std::optional<std::int64_t> presentCharge;     // mAh, or percent
  std::optional<std::int64_t> amperage;          // mA, negative while it discharges
  std::optional<std::int64_t> voltage;           // mV
  std::optional<std::int64_t> minutesRemaining;  // until empty or, while it charges, full
  bool isCharging = false;
  bool isFullyCharged = false;
  bool isExternalConnected = false;  // the machine has power from outside
};

// Names of the batteries that feed the machine (those of mice and headsets do not), the one that gives most
// current last. Nothing when the folder cannot be read, as where the kernel knows no power supplies. Any
// thread.
std::optional<std::vector<std::string>> batteriesIn(const std::string& powerSupplyFolder);

// One battery as it is now; nothing when it has gone. Any thread.
std::optional<Battery> batteryIn(const std::string& powerSupplyFolder, const std::string& name);

}  // namespace qbv::linux_backend
