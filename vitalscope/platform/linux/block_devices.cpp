#include "vitalscope/platform/linux/block_devices.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>

#include "vitalscope/platform/linux/attribute_file.h"

namespace qbv::linux_backend {

namespace {

// The counters' unit, whatever the drive's own sectors are.
constexpr std::uint64_t kSectorBytes = 512;

std::optional<std::uint64_t> sectors(std::string_view word) {
  std::uint64_t count = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), count);
  if (error != std::errc() || end != word.data() + word.size()) return std::nullopt;
  return count;
}

bool isOnHardware(const std::string& folder) {
  return ::access((folder + "/device").c_str(), F_OK) == 0 && attributeWord(folder + "/hidden") != "1";
}

}  // namespace

std::optional<std::vector<std::string>> drivesIn(const std::string& blockFolder) {
  auto names = sortedNamesIn(blockFolder);
  if (names)
    std::erase_if(*names, [&](const std::string& name) {
      return !isOnHardware(blockFolder + "/" + name) || !bytesOfDrive(blockFolder, name);
    });
  return names;
}

std::optional<DriveBytes> bytesOfDrive(const std::string& blockFolder, const std::string& name) {
  const std::string line = attributeWord(blockFolder + "/" + name + "/stat");
  // Reads: count, merged, sectors, milliseconds; then the same of writes.
  std::array<std::string_view, 7> words;
  std::string_view rest = line;
  std::ranges::generate(words, [&rest] { return nextWord(rest); });
  const auto read = sectors(words[2]);
  const auto written = sectors(words[6]);
  if (!read || !written) return std::nullopt;
  return DriveBytes{*read * kSectorBytes, *written * kSectorBytes};
}

}  // namespace qbv::linux_backend
