// The device registry of the real backend, on any tree of files.
#pragma once

#include <memory>
#include <string>

#include "vitalscope/platform/devices.h"
#include "vitalscope/platform/portable/registry_table.h"

namespace qbv::linux_backend {

// Power supplies from SYSTEM/class/power_supply, drives from SYSTEM/block, the process's account from
// PROCESS/io; by default "/sys" and "/proc/self".
std::unique_ptr<RegistryTable> makeDevices(const std::string& systemFolder, const std::string& processFolder);

}  // namespace qbv::linux_backend
