// A report made ready to be shown: names, owners, source lines and the blocking frame filled in.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/quibvitalscope/source_lines.h"
#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/report.h"

namespace qbv::cli {

struct FrameView {
  const reader::Frame* frame = nullptr;
  std::string function;  // demangled; "" when neither the report nor debug information knows it
  reader::Owner owner = reader::Owner::system;
  std::string sourceFile;  // "" when unknown
  int sourceLine = 0;
  std::uint64_t imageOffset = 0;  // 0 when the address lies in no listed image
};

// Threads with equal stacks, in the order of the first of them.
struct StackView {
  std::vector<const reader::Thread*> threads;
  std::vector<FrameView> frames;
};

struct ReportView {
  const reader::Report* report = nullptr;
  int level = 0;  // 1 to 5 of a hang, else 0
  std::optional<StackView> mainThread;
  std::optional<reader::Blocking> blocking;  // in the main thread
  std::vector<StackView> others;
  std::vector<std::optional<ImageFile>> imageFiles;  // of each image; nothing where no frame lies in it
};

// The view refers to the report, which must outlive it.
ReportView viewOf(const reader::Report& report, SourceLines& sources);

// "light" to "freeze"; "" outside 1 to 5.
const char* levelName(int level);

}  // namespace qbv::cli
