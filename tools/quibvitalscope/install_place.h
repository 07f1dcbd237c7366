// Where the files are that belong to this program, told from where the program itself is.
#pragma once

#include <string>

namespace qbv::cli {

// Both work in a build tree and when installed. "" when the file is not there.
std::string standInLibrary();
std::string companionTool(const std::string& name);

}  // namespace qbv::cli
