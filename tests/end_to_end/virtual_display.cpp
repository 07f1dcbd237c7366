#include "tests/end_to_end/virtual_display.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/end_to_end/host_process.h"

extern char** environ;

namespace e2e {

std::string lineFrom(int descriptor) {
  std::string line;
  pollfd entry{descriptor, POLLIN, 0};
  char letter = 0;
  while (poll(&entry, 1, static_cast<int>(kPatience * 1000)) > 0 && read(descriptor, &letter, 1) == 1) {
    if (letter == '\n') return line;
    line += letter;
  }
  return "";
}

namespace {

// A server that looks for a free number by itself may come to one that another is just taking, and both go on
// with it.
std::string ownName() {
  static int made = 0;
  return ":" + std::to_string(21000 + getpid() % 30000 + 40000 * made++);
}

}  // namespace

VirtualDisplay::VirtualDisplay(const std::string& given) {
  const std::string name = given.empty() ? ownName() : given;
  int report[2];
  if (pipe(report) != 0) return;
  fcntl(report[0], F_SETFD, FD_CLOEXEC);
  const std::string number = std::to_string(report[1]);
  const char* const words[] = {"Xvfb", "-displayfd", number.c_str(), "-nolisten",
                               "tcp",  name.c_str(), nullptr};
  if (posix_spawnp(&pid_, words[0], nullptr, nullptr, const_cast<char**>(words), environ) != 0) pid_ = -1;
  close(report[1]);
  const std::string line = lineFrom(report[0]);
  if (!line.empty()) name_ = ":" + line;
  close(report[0]);
}

void VirtualDisplay::end() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace e2e
