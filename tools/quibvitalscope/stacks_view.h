// Allocation stacks made ready to be shown: addresses turned into names by a report of the same process.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/quibvitalscope/source_lines.h"
#include "tools/quibvitalscope/terminal.h"
#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/report.h"
#include "tools/stack_file/stack_file.h"

namespace qbv::cli {

struct PlacedFrame {
  std::uint64_t address = 0;  // a return address
  std::string image;          // file name; "" without a report or when the address lies in no listed image
  std::uint64_t imageOffset = 0;
  std::string function;  // demangled; "" when the image's file does not tell or is another one by now
  std::string sourceFile;
  int sourceLine = 0;
  reader::Owner owner = reader::Owner::system;
};

struct PlacedStack {
  const stack_file::Stack* stack = nullptr;
  std::vector<PlacedFrame> frames;  // innermost first
};

// `report`: null when there is none. The result refers to the stacks.
std::vector<PlacedStack> placed(const std::vector<stack_file::Stack>& stacks, const reader::Report* report,
                                SourceLines& sources);

// "1.5 MiB", "900 bytes".
std::string byteText(std::uint64_t bytes);

// The three forms: for a person, for programs, and one line a stack for drawing them. Each ends with a line
// feed unless there is no stack.
std::string renderStacks(const std::vector<PlacedStack>& stacks, const Style& style);
nlohmann::ordered_json stacksJson(const std::vector<PlacedStack>& stacks);
std::string foldedStacks(const std::vector<PlacedStack>& stacks, stack_file::Weight weight);

}  // namespace qbv::cli
