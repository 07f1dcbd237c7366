// Source lines of a report's addresses, from the debug information of the files that it names.
#pragma once

#include <elfutils/libdwfl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tools/report_reader/report.h"

namespace qbv::cli {

struct SourcePlace {
  std::string function;  // as mangled; "" when unknown
  std::string file;      // "" without debug information
  int line = 0;
};

// What became of an image's file since the report: only `same` files are asked for lines.
enum class ImageFile { same, missing, otherBuild, noBuildId, unreadable };
const char* imageFileName(ImageFile state);  // "same", "missing", "other build", "no build id", "unreadable"

// Opens an image's file (and its separate debug information) when it is first asked about it; asks no server.
// One thread at a time.
class SourceLines {
 public:
  SourceLines();
  ~SourceLines();
  SourceLines(const SourceLines&) = delete;
  SourceLines& operator=(const SourceLines&) = delete;

  ImageFile state(const reader::Image& image);
  // Nothing when neither function nor line is known. A return address is looked up as the call before it.
  std::optional<SourcePlace> at(const reader::Image& image, std::uint64_t address, bool isReturnAddress);

  // The module's build id as reports write it; "" when it has none.
  static std::string buildIdOf(Dwfl_Module* module);

 private:
  struct Module;
  Module& moduleOf(const reader::Image& image);
  std::map<std::string, std::unique_ptr<Module>> modules_;
};

}  // namespace qbv::cli
