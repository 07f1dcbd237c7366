#include "vitalscope/platform/linux/devices.h"

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/attribute_file.h"
#include "vitalscope/platform/linux/block_devices.h"
#include "vitalscope/platform/linux/power_supplies.h"
#include "vitalscope/platform/linux/proc_text.h"

namespace qbv::linux_backend {

namespace {

Value propertiesOf(const Battery& battery) {
  Value::Dictionary properties{
      {"IsCharging", battery.isCharging},
      {"FullyCharged", battery.isFullyCharged},
      {"ExternalConnected", battery.isExternalConnected},
      {"TimeRemaining", battery.minutesRemaining.value_or(kIOPMTimeRemainingUnknown)},
  };
  const auto add = [&properties](const char* key, std::optional<std::int64_t> value) {
    if (value) properties[key] = *value;
  };
  add("AppleRawMaxCapacity", battery.fullCharge);
  add("AppleRawCurrentCapacity", battery.presentCharge);
  add("Amperage", battery.amperage);
  add("Voltage", battery.voltage);
  return properties;
}

Value propertiesOf(const DriveBytes& bytes) {
  return Value::Dictionary{
      {"Statistics", Value::Dictionary{{"Bytes (Read)", bytes.read}, {"Bytes (Write)", bytes.written}}},
  };
}

class LinuxDevices final : public RegistryTable {
 public:
  LinuxDevices(const std::string& systemFolder, const std::string& processFolder)
      : powerSupplies_(systemFolder + "/class/power_supply"),
        drives_(systemFolder + "/block"),
        account_(processFolder + "/io") {}

  std::optional<ProcessDiskIO> diskIOOfProcess() override {
    const auto text = attributeText(account_);
    const auto account = text ? parseProcessIO(*text) : std::nullopt;
    if (!account) return std::nullopt;
    return ProcessDiskIO{account->bytesRead, account->bytesWritten};
  }

 private:
  std::optional<std::vector<std::string>> entriesOfClass(const std::string& className) override {
    if (className == kIOPMPowerSource) return batteriesIn(powerSupplies_);
    if (className == kIOBlockStorageDriver) return drivesIn(drives_);
    return std::vector<std::string>();
  }

  Value propertiesOfEntry(const std::string& className, const std::string& name) override {
    if (className == kIOPMPowerSource) {
      const auto battery = batteryIn(powerSupplies_, name);
      return battery ? propertiesOf(*battery) : Value();
    }
    const auto bytes = bytesOfDrive(drives_, name);
    return bytes ? propertiesOf(*bytes) : Value();
  }

  const std::string powerSupplies_;
  const std::string drives_;
  const std::string account_;
};

}  // namespace

std::unique_ptr<RegistryTable> makeDevices(const std::string& systemFolder,
                                           const std::string& processFolder) {
  return std::make_unique<LinuxDevices>(systemFolder, processFolder);
}

Devices& devices() {
  static Devices* const instance = makeDevices("/sys", "/proc/self").release();
  return *instance;
}

}  // namespace qbv::linux_backend
