// Folders: making, listing and removing them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qbv::linux_backend {

// A folder for its user alone, with all missing parents. True also when it was there.
bool makeFolder(const std::string& path);

// Names in a folder without "." and "..". Takes the descriptor over; nothing when it cannot be read.
std::optional<std::vector<std::string>> namesInFolder(int descriptor);

// A file, a link or a folder with all below it, named from an open folder (or AT_FDCWD). Never leaves the
// tree: what a link points at stays. False when anything is left.
bool removeTree(int folder, const std::string& name);

}  // namespace qbv::linux_backend
