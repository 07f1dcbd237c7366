// Power supplies and drives on made-up trees of the kernel's files, and the registry's handles.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "tests/platform/temporary_folder.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/devices.h"

namespace qbv {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

class LinuxDevicesTest : public testing::Test {
 protected:
  using Attributes = std::initializer_list<std::pair<const char*, const char*>>;

  LinuxDevicesTest() {
    fs::create_directories(root / "class/power_supply");
    fs::create_directories(root / "block");
  }

  void write(const std::string& at, Attributes attributes) {
    fs::create_directories(root / at);
    for (const auto& [name, text] : attributes) std::ofstream(root / (at + "/" + name)) << text << "\n";
  }
  void supply(const std::string& name, Attributes attributes) {
    write("class/power_supply/" + name, attributes);
  }
  void drive(const std::string& name, const char* stat) {
    write("block/" + name, {{"stat", stat}});
    fs::create_directories(root / ("block/" + name + "/device"));
  }

  std::vector<Value> entries(const char* className) {
    std::vector<Value> found;
    IOIterator iterator = 0;
    if (devices->IOServiceGetMatchingServices(IOServiceMatching(className), iterator) != KERN_SUCCESS)
      return {"no look-up"};
    while (const IOObject entry = devices->IOIteratorNext(iterator)) {
      Value properties;
      devices->IORegistryEntryCreateCFProperties(entry, properties);
      found.push_back(properties);
      devices->IOObjectRelease(entry);
    }
    devices->IOObjectRelease(iterator);
    return found;
  }
  Value battery() {
    const auto found = entries("IOPMPowerSource");
    return found.empty() ? Value() : found.back();
  }

  TemporaryFolder folder;
  const fs::path root{folder.path()};
  std::unique_ptr<RegistryTable> devices = linux_backend::makeDevices(folder.path(), folder.path());
};

TEST_F(LinuxDevicesTest, BatteryThatCountsItsCharge) {
  supply("AC", {{"type", "Mains"}, {"online", "0"}});
  supply("BAT0", {{"type", "Battery"},
                  {"status", "Discharging"},
                  {"charge_full", "4400000"},
                  {"charge_now", "2200000"},
                  {"current_now", "1200000"},
                  {"voltage_now", "11400000"}});
  EXPECT_EQ(battery(), (Value::Dictionary{{"AppleRawMaxCapacity", 4400},
                                          {"AppleRawCurrentCapacity", 2200},
                                          {"Amperage", -1200},
                                          {"Voltage", 11400},
                                          {"TimeRemaining", 110},
                                          {"IsCharging", false},
                                          {"FullyCharged", false},
                                          {"ExternalConnected", false}}));
}

TEST_F(LinuxDevicesTest, BatteryThatCountsEnergyAndIsCharged) {
  supply("ADP1", {{"type", "Mains"}, {"online", "1"}});
  supply("BAT1", {{"type", "Battery"},
                  {"status", "Charging"},
                  {"energy_full", "50000000"},
                  {"energy_now", "40000000"},
                  {"power_now", "24000000"},
                  {"voltage_min_design", "10000000"},
                  {"voltage_now", "12000000"}});
  EXPECT_EQ(battery(), (Value::Dictionary{{"AppleRawMaxCapacity", 5000},
                                          {"AppleRawCurrentCapacity", 4000},
                                          {"Amperage", 2000},
                                          {"Voltage", 12000},
                                          {"TimeRemaining", 30},
                                          {"IsCharging", true},
                                          {"FullyCharged", false},
                                          {"ExternalConnected", true}}));
}

TEST_F(LinuxDevicesTest, SignOfTheCurrentFollowsTheStatus) {
  supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}, {"current_now", "-900000"}});
  EXPECT_EQ(battery()["Amperage"], Value(-900)) << "a driver that counts outflow as negative";
  EXPECT_FALSE(battery()["ExternalConnected"].boolValue()) << "without a charger the status tells";
  supply("BAT0", {{"status", "Charging"}});
  EXPECT_EQ(battery()["Amperage"], Value(900));
  EXPECT_TRUE(battery()["ExternalConnected"].boolValue());
  supply("BAT0", {{"status", "Unknown"}});
  EXPECT_EQ(battery()["Amperage"], Value(-900));
  supply("BAT0", {{"status", "Full"}, {"current_now", "0"}});
  EXPECT_TRUE(battery()["FullyCharged"].boolValue());
  EXPECT_EQ(battery()["TimeRemaining"], Value(65535)) << "nothing flows";
}

TEST_F(LinuxDevicesTest, BatteryThatTellsLittleOrNonsense) {
  supply("BAT0", {{"type", "Battery"}, {"capacity", "73"}, {"status", "Discharging"}});
  EXPECT_EQ(battery(), (Value::Dictionary{{"AppleRawMaxCapacity", 100},
                                          {"AppleRawCurrentCapacity", 73},
                                          {"TimeRemaining", 65535},
                                          {"IsCharging", false},
                                          {"FullyCharged", false},
                                          {"ExternalConnected", false}}));
  supply("BAT0", {{"time_to_empty_now", "5400"}, {"current_now", "1000000"}});
  EXPECT_EQ(battery()["TimeRemaining"], Value(90));
  supply("BAT0", {{"voltage_now", "0"}, {"power_now", "99999999999999999"}, {"current_now", "1e6"}});
  EXPECT_TRUE(battery()["Amperage"].isNil());
  EXPECT_TRUE(battery()["Voltage"].isNil());
}

TEST_F(LinuxDevicesTest, OnlyBatteriesOfTheMachineCountAndTheOneInUseComesLast) {
  supply("ucsi-source", {{"type", "USB_PD"}, {"online", "1"}});
  supply("hid-mouse", {{"type", "Battery"}, {"scope", "Device"}, {"capacity", "10"}});
  supply("BAT2", {{"type", "Battery"}, {"present", "0"}, {"capacity", "20"}});
  EXPECT_THAT(entries("IOPMPowerSource"), IsEmpty());

  supply("BAT0", {{"type", "Battery"}, {"status", "Discharging"}, {"current_now", "500000"}});
  supply("BAT1", {{"type", "Battery"}, {"status", "Unknown"}, {"current_now", "0"}});
  const auto found = entries("IOPMPowerSource");
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found.back()["Amperage"], Value(-500));
  EXPECT_TRUE(found.back()["ExternalConnected"].boolValue());
}

TEST_F(LinuxDevicesTest, DrivesCountInSectorsAndNothingCountsTwice) {
  drive("nvme0n1", "  10 0 2 0 20 0 4 0 0 0 0 0 0 0 0 0 0");
  drive("sda", "1 2 1000000000000 4 5 6 3 8 9 10 11");
  drive("nvme0c0n1", "10 0 2 0 20 0 4 0 0 0 0");
  write("block/nvme0c0n1", {{"hidden", "1"}});
  drive("broken", "1 2 3");
  for (const char* made : {"loop0", "ram0", "zram0", "dm-0", "md127"})
    write(std::string("block/") + made, {{"stat", "1 1 1 1 1 1 1 1 1 1 1"}});
  drive("sda/sda1", "1 2 500 4 5 6 3 8 9 10 11");

  std::vector<std::pair<std::int64_t, std::int64_t>> bytes;
  for (const Value& properties : entries("IOBlockStorageDriver"))
    bytes.emplace_back(properties["Statistics"]["Bytes (Read)"].longLongValue(),
                       properties["Statistics"]["Bytes (Write)"].longLongValue());
  EXPECT_THAT(bytes, ElementsAre(std::pair(1024, 2048), std::pair(512000000000000, 1536)));
}

TEST_F(LinuxDevicesTest, AnIteratorMeetsWhatIsThereWhenItIsReset) {
  drive("sda", "1 0 1 0 1 0 1 0 0 0 0");
  IOIterator iterator = 0;
  devices->IOServiceGetMatchingServices(IOServiceMatching("IOBlockStorageDriver"), iterator);
  const IOObject sda = devices->IOIteratorNext(iterator);
  drive("sdb", "1 0 1 0 1 0 1 0 0 0 0");
  EXPECT_EQ(devices->IOIteratorNext(iterator), 0U);
  devices->IOIteratorReset(iterator);
  EXPECT_NE(devices->IOIteratorNext(iterator), 0U);
  EXPECT_NE(devices->IOIteratorNext(iterator), 0U);
  EXPECT_EQ(devices->IOIteratorNext(iterator), 0U);

  fs::remove_all(root / "block/sda");
  Value properties;
  EXPECT_NE(devices->IORegistryEntryCreateCFProperties(sda, properties), KERN_SUCCESS);
  EXPECT_TRUE(devices->IORegistryEntryCreateCFProperty(sda, "Statistics").isNil());
}

TEST_F(LinuxDevicesTest, WrongHandlesDoNothing) {
  drive("sda", "1 0 1 0 1 0 1 0 0 0 0");
  IOIterator iterator = 0;
  devices->IOServiceGetMatchingServices(IOServiceMatching("IOBlockStorageDriver"), iterator);
  const IOObject entry = devices->IOIteratorNext(iterator);
  EXPECT_EQ(devices->IOIteratorNext(entry), 0U) << "an entry is no iterator";
  EXPECT_TRUE(devices->IORegistryEntryCreateCFProperty(iterator, "Statistics").isNil());
  devices->IOObjectRelease(entry);
  devices->IOObjectRelease(entry);
  EXPECT_TRUE(devices->IORegistryEntryCreateCFProperty(entry, "Statistics").isNil());
  devices->IOIteratorReset(0);
  devices->IOIteratorReset(12345);
  devices->IOObjectRelease(iterator);
  EXPECT_EQ(devices->objectCount(), 0U);

  EXPECT_NE(devices->IOServiceGetMatchingServices({}, iterator), KERN_SUCCESS);
  EXPECT_EQ(iterator, 0U);
  EXPECT_THAT(entries("IOUSBHost"), IsEmpty());
  fs::remove_all(root / "class");
  EXPECT_THAT(entries("IOPMPowerSource"), ElementsAre(Value("no look-up")));
}

TEST_F(LinuxDevicesTest, TheProcessesOwnPartIsWhatTheStorageWrote) {
  EXPECT_FALSE(devices->diskIOOfProcess().has_value());
  std::ofstream(root / "io")
      << "rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 4096\nwrite_bytes: 8192\n"
         "cancelled_write_bytes: 7\n";
  const auto account = devices->diskIOOfProcess();
  ASSERT_TRUE(account.has_value());
  EXPECT_EQ(account->bytesRead, 4096U);
  EXPECT_EQ(account->bytesWritten, 8192U);
}

// On this machine: what is told must hold together, whatever it has.
TEST(LinuxDevicesLive, CountersOfTheRealDrivesGrow) {
  Devices& devices = linux_backend::devices();
  IOIterator iterator = 0;
  if (devices.IOServiceGetMatchingServices(IOServiceMatching(kIOBlockStorageDriver), iterator) !=
      KERN_SUCCESS)
    GTEST_SKIP() << "no folder of drives";
  std::size_t drives = 0;
  for (; const IOObject entry = devices.IOIteratorNext(iterator); ++drives) {
    const Value before = devices.IORegistryEntryCreateCFProperty(entry, "Statistics");
    const Value after = devices.IORegistryEntryCreateCFProperty(entry, "Statistics");
    for (const char* key : {"Bytes (Read)", "Bytes (Write)"}) {
      EXPECT_GE(after[key].longLongValue(), before[key].longLongValue());
      EXPECT_EQ(before[key].longLongValue() % 512, 0);
    }
    devices.IOObjectRelease(entry);
  }
  devices.IOObjectRelease(iterator);
  RecordProperty("drives", static_cast<int>(drives));
}

}  // namespace
}  // namespace qbv
