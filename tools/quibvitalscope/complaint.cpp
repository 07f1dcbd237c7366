#include <cstdio>

#include "tools/quibvitalscope/command.h"

namespace qbv::cli {

void complain(const std::string& sentence) {
  std::fflush(stdout);
  std::fprintf(stderr, "quibvitalscope: %s\n", sentence.c_str());
}

int fail(int exitCode, const std::string& sentence) {
  complain(sentence);
  return exitCode;
}

}  // namespace qbv::cli
