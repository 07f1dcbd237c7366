// The report of a leak check as text.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "tools/leaks/analysis.h"

namespace leaks {

struct LeakReport {
  std::uint32_t processId = 0;
  std::string process;
  std::string executable;
  std::string date;
  std::string library;                      // "glibc 2.36"
  std::vector<double> stoppedMilliseconds;  // one per pass
  std::string note;
  bool isWhole = false;  // list every block, not only the largest roots
  Analysis analysis;
  // Name of the function or variable that an address of the process lies in; "" where it is not known.
  std::function<std::string(Address)> nameOf = [](Address) { return ""; };
};

// Content, kinds and allocation stacks of the blocks are read from the snapshot that the analysis was made
// of.
std::string renderLeaks(const LeakReport& report, const Snapshot& snapshot);

}  // namespace leaks
