// Programs to look at from outside, and the debugger as a witness of their stacks. QBV_UNWIND_DEBUGGER_SCRIPT
// names the script that the debugger runs.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/commands.h"

namespace qbv::test {

using Addresses = std::vector<std::uint64_t>;

inline Addresses readAddresses(std::istream& text) {
  Addresses addresses;
  for (std::uint64_t address = 0; text >> std::hex >> address;) addresses.push_back(address);
  return addresses;
}

// A program that stays as it is until this object goes.
class Victim {
 public:
  explicit Victim(std::vector<std::string> command) : child_(startProgram(std::move(command))) {}
  ~Victim() {
    close(child_.input);
    kill(child_.process, SIGKILL);
    waitpid(child_.process, nullptr, 0);
    close(child_.output);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  pid_t pid() const { return child_.process; }
  // What it says before it says "ready"; nothing when it ends instead.
  std::vector<std::string> linesUntilReady() {
    std::vector<std::string> all;
    for (std::string line = lineOf(child_.output); !line.empty(); line = lineOf(child_.output)) {
      if (line == "ready") return all;
      all.push_back(line);
    }
    return {};
  }

 private:
  Child child_;
};

inline bool debuggerIsInstalled() {
  return shell("gdb --version 2>&1").code == 0;
}

// The frames of each thread of a process, innermost first, as the debugger sees them.
inline std::map<int, Addresses> debuggerFrames(pid_t pid) {
  std::map<int, Addresses> frames;
  const std::string command = "gdb -batch -nx -iex 'set debuginfod enabled off' -p " + std::to_string(pid) +
                              " -x " QBV_UNWIND_DEBUGGER_SCRIPT " 2>&1";
  const std::string everything = shell(command).output;
  for (const std::string& line : linesOf(everything)) {
    std::istringstream text(line);
    std::string word;
    int thread = 0;
    if (text >> word >> thread && word == "frames") frames[thread] = readAddresses(text);
  }
  if (frames.empty()) ADD_FAILURE() << "the debugger says:\n" << everything;
  return frames;
}

inline std::string inHex(const Addresses& addresses) {
  std::ostringstream text;
  for (const std::uint64_t address : addresses) text << std::hex << address << ' ';
  return text.str();
}

}  // namespace qbv::test
