#include "vitalscope/platform/linux/power_supplies.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "vitalscope/platform/linux/attribute_file.h"

namespace qbv::linux_backend {

namespace {

// The attributes of one power supply, in millionths of their units.
class Supply {
 public:
  explicit Supply(std::string folder) : folder_(std::move(folder)) {}
  std::string word(const char* name) const { return attributeWord(folder_ + name); }
  std::optional<std::int64_t> number(const char* name) const { return attributeNumber(folder_ + name); }
  std::optional<std::int64_t> firstOf(std::initializer_list<const char*> names) const {
    for (const char* name : names)
      if (const auto value = number(name)) return value;
    return std::nullopt;
  }

 private:
  std::string folder_;
};

Supply supplyIn(const std::string& folder, const std::string& name) {
  return Supply(folder + "/" + name + "/");
}

bool feedsTheMachine(const Supply& supply) {
  return supply.word("scope") != "Device";
}

bool isBattery(const Supply& supply) {
  return supply.word("type") == "Battery" && feedsTheMachine(supply) && supply.number("present") != 0;
}

// Nothing where no supply tells whether it is plugged in.
std::optional<bool> isExternalConnected(const std::string& folder) {
  std::optional<bool> connected;
  for (const std::string& name : sortedNamesIn(folder).value_or(std::vector<std::string>())) {
    const Supply supply = supplyIn(folder, name);
    const std::string type = supply.word("type");
    const bool isCharger = type == "Mains" || type == "Wireless" || type.starts_with("USB");
    const auto online = supply.number("online");
    if (isCharger && online && feedsTheMachine(supply)) connected = connected.value_or(false) || *online != 0;
  }
  return connected;
}

std::int64_t ratio(std::int64_t millionths, double divisor) {
  return std::llround(static_cast<double>(millionths) / divisor);
}

std::optional<std::int64_t> thousandths(std::optional<std::int64_t> millionths) {
  return millionths ? std::optional(ratio(*millionths, 1000)) : std::nullopt;
}

std::optional<std::int64_t> microvolts(const Supply& supply) {
  const auto voltage = supply.firstOf({"voltage_now", "voltage_avg", "voltage_min_design"});
  return voltage && *voltage > 0 ? voltage : std::nullopt;
}

// Some drivers count what flows out as negative, others leave that to the status.
std::optional<std::int64_t> milliamperes(const Supply& supply, const std::string& status) {
  auto current = thousandths(supply.firstOf({"current_now", "current_avg"}));
  const auto voltage = microvolts(supply);
  const auto power = supply.firstOf({"power_now", "power_avg"});
  if (!current && power && voltage) current = ratio(*power, static_cast<double>(*voltage) / 1000);
  if (!current) return std::nullopt;
  if (status == "Discharging") return -std::abs(*current);
  if (status == "Charging") return std::abs(*current);
  return current;
}

struct Charge {
  std::int64_t full = 0;
  std::int64_t present = 0;
  bool isPercentage = false;
};

std::optional<Charge> charge(const Supply& supply) {
  const auto full = supply.firstOf({"charge_full", "charge_full_design"});
  const auto present = supply.firstOf({"charge_now", "charge_avg"});
  if (full && present) return Charge{ratio(*full, 1000), ratio(*present, 1000)};

  const auto fullEnergy = supply.firstOf({"energy_full", "energy_full_design"});
  const auto presentEnergy = supply.firstOf({"energy_now", "energy_avg"});
  const auto voltage = supply.number("voltage_min_design").value_or(0);
  const auto divisor = voltage > 0 ? voltage : microvolts(supply).value_or(0);
  if (fullEnergy && presentEnergy && divisor > 0) {
    const double kilovolts = static_cast<double>(divisor) / 1000;
    return Charge{ratio(*fullEnergy, kilovolts), ratio(*presentEnergy, kilovolts)};
  }
  if (const auto percent = supply.number("capacity")) return Charge{100, *percent, true};
  return std::nullopt;
}

std::optional<std::int64_t> minutesRemaining(const Supply& supply, const Battery& battery,
                                             const std::optional<Charge>& charge) {
  const std::int64_t flow = battery.amperage.value_or(0);
  if (!battery.isCharging && flow >= 0) return std::nullopt;
  const auto seconds = battery.isCharging ? supply.firstOf({"time_to_full_now", "time_to_full_avg"})
                                          : supply.firstOf({"time_to_empty_now", "time_to_empty_avg"});
  if (seconds && *seconds > 0) return *seconds / 60;
  if (!charge || charge->isPercentage || flow == 0) return std::nullopt;
  const std::int64_t left = battery.isCharging ? charge->full - charge->present : charge->present;
  return std::max<std::int64_t>(left, 0) * 60 / std::abs(flow);
}

Battery read(const Supply& supply, std::optional<bool> isExternalConnected) {
  const std::string status = supply.word("status");
  const auto present = charge(supply);
  Battery battery;
  battery.isCharging = status == "Charging";
  battery.isFullyCharged = status == "Full";
  battery.isExternalConnected =
      isExternalConnected.value_or(battery.isCharging || battery.isFullyCharged || status == "Not charging");
  battery.voltage = thousandths(microvolts(supply));
  battery.amperage = milliamperes(supply, status);
  if (present) {
    battery.fullCharge = present->full;
    battery.presentCharge = present->present;
  }
  battery.minutesRemaining = minutesRemaining(supply, battery, present);
  return battery;
}

}  // namespace

std::optional<std::vector<std::string>> batteriesIn(const std::string& powerSupplyFolder) {
  auto names = sortedNamesIn(powerSupplyFolder);
  if (!names) return std::nullopt;
  std::erase_if(*names,
                [&](const std::string& name) { return !isBattery(supplyIn(powerSupplyFolder, name)); });
  if (names->size() < 2) return names;

  std::vector<std::pair<std::int64_t, std::string>> byCurrent;
  for (std::string& name : *names) {
    const Supply supply = supplyIn(powerSupplyFolder, name);
    byCurrent.emplace_back(-milliamperes(supply, supply.word("status")).value_or(0), std::move(name));
  }
  std::ranges::stable_sort(byCurrent, {}, &std::pair<std::int64_t, std::string>::first);
  names->clear();
  for (auto& [given, name] : byCurrent) names->push_back(std::move(name));
  return names;
}

std::optional<Battery> batteryIn(const std::string& powerSupplyFolder, const std::string& name) {
  const Supply supply = supplyIn(powerSupplyFolder, name);
  if (!isBattery(supply)) return std::nullopt;
  return read(supply, isExternalConnected(powerSupplyFolder));
}

}  // namespace qbv::linux_backend
