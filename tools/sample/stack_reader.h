// Call chains of another process's stopped threads, and the names of what is in them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tools/sample/call_tree.h"
#include "tools/sample/report_writer.h"
#include "tools/tracer/process_images.h"

namespace sample {

// Uses the libraries' call-frame information. One thread only.
class StackReader {
 public:
  explicit StackReader(pid_t process) : process_(process) {}

  // Prepares for the process, which must be attached already. Empty on success, else a sentence that says why
  // not.
  std::string open();
  // The thread must be stopped. Outermost address first; return addresses point at the call, not behind it,
  // so that they name the caller. Cut off at 512 frames; empty when nothing could be read.
  Chain chainOf(pid_t thread);
  // Takes in libraries that were loaded since, if a chain led into one. Cheap when none did.
  void refresh();

  FunctionName nameOf(std::uint64_t address);
  std::vector<ImageFacts> images();

 private:
  std::string report();

  pid_t process_;
  tracer::ProcessImages images_;
  bool metUnknownCode_ = false;
};

}  // namespace sample
