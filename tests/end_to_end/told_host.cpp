#include "tests/end_to_end/told_host.h"

#include <poll.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "vitalscope/platform/platform.h"

namespace e2e {

void turn(double seconds) {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  qbv::RunLoop& loop = qbv::platform().runLoop;
  while (Clock::now() < end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    pollfd entry{loop.descriptor(), POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(left.count())) > 0) loop.drain();
  }
}

namespace {

// False at the end of the input.
bool readCommand(std::string& line) {
  line.clear();
  qbv::RunLoop& loop = qbv::platform().runLoop;
  for (;;) {
    pollfd entries[] = {{STDIN_FILENO, POLLIN, 0}, {loop.descriptor(), POLLIN, 0}};
    if (poll(entries, 2, -1) < 0) continue;
    if (entries[1].revents != 0) loop.drain();
    if (entries[0].revents == 0) continue;
    char letter = 0;
    if (read(STDIN_FILENO, &letter, 1) != 1) return false;
    if (letter == '\n') return true;
    line += letter;
  }
}

}  // namespace

int obeyAll(const std::function<bool(const std::string& line)>& obey) {
  for (std::string line; readCommand(line);) {
    if (line == "exit") return 0;
    if (!obey(line)) return 3;
    std::printf("done %s\n", line.c_str());
    std::fflush(stdout);
  }
  return 0;
}

}  // namespace e2e
