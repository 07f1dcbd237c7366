// The machine's drives and what they have read and written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::linux_backend {

struct DriveBytes {
  std::uint64_t read = 0;
  std::uint64_t written = 0;
};

// Names of the drives that count, ascending: what stands on hardware of its own and tells its counters. What
// passes its traffic on to other drives (loops, mapped and joined devices, memory, the single paths of a
// drive that has several) is left out, and so nothing counts twice. Nothing when the folder cannot be read.
// Any thread.
std::optional<std::vector<std::string>> drivesIn(const std::string& blockFolder);

// Bytes since the drive's arrival; nothing when it has gone. Any thread.
std::optional<DriveBytes> bytesOfDrive(const std::string& blockFolder, const std::string& name);

}  // namespace qbv::linux_backend
