// A report as read back from its text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qbv::reader {

struct Frame {
  unsigned index = 0;
  std::string image;                  // file name; "" when the address lies in no image
  std::uint64_t address = 0;          // of the next instruction, except in frame 0: a return address
  std::optional<std::string> symbol;  // as in the image's symbol table: C++ names are mangled
  std::uint64_t offset = 0;           // from the symbol, or from the image when there is none
  friend bool operator==(const Frame&, const Frame&) = default;
};

struct Thread {
  bool main = false;
  std::uint32_t id = 0;              // of the main thread: the process id when the header gives it, else 0
  std::optional<double> cpuPercent;  // main thread only
  std::optional<double> memoryMegabytes;  // main thread only: the whole process's footprint
  std::vector<Frame> frames;              // innermost first
};

struct Image {
  std::uint64_t begin = 0;  // load address
  std::uint64_t end = 0;    // last address; before `begin` when the image has no code
  std::string name;
  std::string version;  // the application's, for every image
  std::string buildId;  // 32 lower-case hexadecimal digits (a longer id is cut off); "" when it has none
  std::string path;
};

struct Report {
  std::string process;
  std::uint32_t processId = 0;
  // Every line of the header as label and value, in order, without those whose value is empty or "(null)".
  std::vector<std::pair<std::string, std::string>> facts;
  std::vector<Thread> threads;        // as written: in the order of the system's thread list
  std::vector<std::string> failures;  // sentences that stand in the place of a thread's stack
  std::vector<Image> images;          // the executable first
  std::string extraData;              // JSON text of an object; "" when there is none
  // What is missing or not understood; empty for a whole report.
  std::vector<std::string> problems;

  // The value of a header line; "" when it has none.
  std::string_view fact(std::string_view label) const;
  const Thread* mainThread() const;  // null when it was not captured
  const Image* imageAt(std::uint64_t address) const;
};

}  // namespace qbv::reader
