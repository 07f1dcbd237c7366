// What this machine and this process allow, as far as the monitor depends on it.
#pragma once

#include <string>
#include <vector>

namespace qbv::cli {

struct Check {
  enum class State { works, limited, missing };
  std::string name;
  State state = State::missing;
  bool essential = false;  // without it nothing useful is left
  std::string finding;     // what was found
  std::string purpose;     // what it is used for
  std::string fallback;    // what happens instead when it does not work; "" when it does
};

// Each looks at the running system at the time of the call and changes nothing that lasts.
std::vector<Check> captureChecks();  // stacks: thread files, memory reads, signal, ptrace, stack limit
std::vector<Check> fileChecks();     // log folder, creation dates, control socket's folder
std::vector<Check> desktopChecks();  // display, buses, login manager, opener
std::vector<Check> deviceChecks();   // battery, drives
std::vector<Check> toolChecks();     // our own libraries and companion tools
// A program that 'run' started: what its monitor works with. One answer when it cannot be asked.
std::vector<Check> processChecks(int process);

}  // namespace qbv::cli
