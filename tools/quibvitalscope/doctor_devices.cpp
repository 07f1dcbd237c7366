#include <cmath>
#include <string>

#include "tools/quibvitalscope/doctor_checks.h"
#include "vitalscope/platform/linux/block_devices.h"
#include "vitalscope/platform/linux/power_supplies.h"

namespace qbv::cli {
namespace {

using State = Check::State;

constexpr char kPowerSupplies[] = "/sys/class/power_supply";
constexpr char kDrives[] = "/sys/block";

void append(std::string& list, const std::string& item) {
  list += (list.empty() ? "" : ", ") + item;
}

std::string describe(const std::string& name) {
  const auto battery = linux_backend::batteryIn(kPowerSupplies, name);
  if (!battery || !battery->presentCharge || battery->fullCharge.value_or(0) <= 0) return name;
  const double percent =
      100.0 * static_cast<double>(*battery->presentCharge) / static_cast<double>(*battery->fullCharge);
  return name + " at " + std::to_string(std::lround(percent)) + " %" +
         (battery->amperage && battery->voltage ? "" : ", which tells no draw");
}

Check battery() {
  std::string found;
  for (const auto& name : linux_backend::batteriesIn(kPowerSupplies).value_or(std::vector<std::string>()))
    append(found, describe(name));
  Check check{"battery", State::works, false, found, "reports of heavy battery draw", ""};
  if (!found.empty()) return check;
  check.state = State::limited;
  check.finding = "this machine has none";
  check.fallback = "the battery monitor has nothing to watch";
  return check;
}

Check drives() {
  std::string found;
  for (const auto& name : linux_backend::drivesIn(kDrives).value_or(std::vector<std::string>()))
    append(found, name);
  Check check{"drives", State::works, false, found, "disk input and output", ""};
  if (!found.empty()) return check;
  check.state = State::limited;
  check.finding = "no drive tells its counters";
  check.fallback = "the disk monitor has nothing to watch";
  return check;
}

}  // namespace

std::vector<Check> deviceChecks() {
  return {battery(), drives()};
}

}  // namespace qbv::cli
