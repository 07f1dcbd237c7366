// The text of a sampling: a call tree per thread, the top of the stacks, the loaded images.
#pragma once

#include <string>
#include <vector>

#include "tools/sample/call_tree.h"

namespace sample {

struct ThreadSamples {
  std::uint32_t thread = 0;  // the kernel's thread id
  std::string name;
  CallTree tree;
};

struct ImageFacts {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;  // first address behind it
  std::string buildId;    // lower-case hexadecimal, "" when it has none
  std::string path;
};

struct Sampling {
  std::string process;  // name
  std::uint32_t processId = 0;
  std::string executable;
  std::string date;    // local, "yyyy-MM-dd HH:mm:ss"
  double seconds = 0;  // from the first to the last observation
  double stepMilliseconds = 0;
  std::size_t sweeps = 0;          // times that all threads were looked at
  double stoppedMilliseconds = 0;  // median time that the process stood still in a sweep
  std::string note;                // "" or why the sampling ended early
  std::vector<ThreadSamples> threads;
  std::vector<ImageFacts> images;
};

// Threads as given (the caller puts the main thread first).
std::string renderSampling(const Sampling& sampling);

}  // namespace sample
