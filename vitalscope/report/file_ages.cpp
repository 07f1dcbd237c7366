#include "vitalscope/report/file_ages.h"

#include <algorithm>
#include <iterator>

namespace qbv {

std::optional<std::string> fileToTrim(const std::vector<DatedFile>& files) {
  if (files.size() <= kFilesKept) return std::nullopt;
  const DatedFile* oldest = nullptr;
  for (const DatedFile& file : files)
    if (file.created && (oldest == nullptr || *file.created < *oldest->created)) oldest = &file;
  if (oldest == nullptr) return std::nullopt;
  return oldest->path;
}

std::vector<std::string> newestFirst(std::vector<DatedFile> files) {
  // An empty date is less than any date.
  std::stable_sort(files.begin(), files.end(), [](const DatedFile& left, const DatedFile& right) {
    return left.created > right.created;
  });
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (DatedFile& file : files) paths.push_back(std::move(file.path));
  return paths;
}

}  // namespace qbv
