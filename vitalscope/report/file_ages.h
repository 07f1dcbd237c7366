// Which of some files is to go, and how they stand by age.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/clock.h"

namespace qbv {

// A folder tree may hold this many files; more start a trimming pass.
inline constexpr std::size_t kFilesKept = 10;

struct DatedFile {
  std::string path;
  std::optional<AbsoluteTime> created;  // nothing when it cannot be read
};

// The file to remove from a tree with these files: none up to kFilesKept, otherwise the oldest, the first of
// those equally old. A file without a date counts but is never chosen.
std::optional<std::string> fileToTrim(const std::vector<DatedFile>& files);

// The paths, newest first; equally old ones keep their order, those without a date come last.
std::vector<std::string> newestFirst(std::vector<DatedFile> files);

}  // namespace qbv
