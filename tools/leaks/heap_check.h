// One leak check of a running process, from the first stop to the text.
#pragma once

#include <sys/types.h>

#include <string>

namespace leaks {

struct CheckResult {
  std::string failure;  // a sentence; empty when the text is there
  std::string text;
};

// Stops the process for some ten milliseconds per 100 MB, twice when the first pass finds leaks, and lets it
// run on each time before the copy is looked at. SIGINT and SIGTERM wait while it stands still.
// `isWhole`: the text lists every block, without a limit.
CheckResult checkProcess(pid_t process, bool isWhole);

}  // namespace leaks
