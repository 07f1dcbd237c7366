// The kernel's small text files on devices: a value each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qbv::linux_backend {

// Up to 4 KB of the file; nothing when it cannot be read. Some drivers fail a read while the device is
// asleep.
std::optional<std::string> attributeText(const std::string& path);
// Its first line without blanks around; "" when it cannot be read.
std::string attributeWord(const std::string& path);
// A whole number; nothing when there is none.
std::optional<std::int64_t> attributeNumber(const std::string& path);

// Names in a folder in ascending order; nothing when it cannot be read.
std::optional<std::vector<std::string>> sortedNamesIn(const std::string& folder);

// The next word of the text, which loses it; empty at the end.
std::string_view nextWord(std::string_view& text);

}  // namespace qbv::linux_backend
