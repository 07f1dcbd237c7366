// leaks [--all] PID: the blocks of a running process that nothing points to any more.
#include <sys/types.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/leaks/heap_check.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr char kUsage[] = "usage: leaks [--all] PID\n";
constexpr char kHelp[] =
    "Lists the blocks on the heap of process PID that nothing in the process points to any more.\n"
    "The process is stopped for a moment, copied, and runs on; it needs no preparation, but the\n"
    "right to trace it. Any word that points into a block keeps it: pointers that are stored\n"
    "encoded are not seen, and a stale one hides a leak.\n"
    "The largest blocks are listed with their first bytes, with --all every one. Where the process\n"
    "recorded the stacks of its allocations, blocks are grouped by these, too.\n"
    "Exit status: 0 the heap was examined, leaks or not; 1 it could not be; 2 wrong usage.\n";

bool parseProcess(const char* text, pid_t& process) {
  const char* const end = text + std::strlen(text);
  const auto [stop, error] = std::from_chars(text, end, process);
  return error == std::errc() && stop == end && process > 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
    std::printf("%s%s", kUsage, kHelp);
    return 0;
  }
  pid_t process = 0;
  const bool isWhole = argc == 3 && std::strcmp(argv[1], "--all") == 0;
  if ((argc != 2 && !isWhole) || !parseProcess(argv[argc - 1], process)) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  const leaks::CheckResult result = leaks::checkProcess(process, isWhole);
  if (!result.failure.empty()) {
    std::fprintf(stderr, "leaks: %s\n", result.failure.c_str());
    return kExitFailure;
  }
  const bool isWritten = std::fputs(result.text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
  return isWritten ? 0 : kExitFailure;
}
