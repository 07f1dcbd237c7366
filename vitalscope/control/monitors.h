// The monitors that sign-in starts and sign-out stops.
#pragma once

#include <span>

namespace qbv {

struct Monitor {
  const char* name;
  bool needsLogVersion;  // only in builds that keep logs
  void (*start)();
  void (*stop)();  // null for a step that is done once and leaves nothing running
};

// All of them, in the order in which they start and stop. Those for every build come first.
std::span<const Monitor> monitors();

// Any thread but the main one, not at load: both ask the host through the gates and run what the monitors do.
// Stopping asks nothing about the user: a monitor that was never started takes it without harm.
void startMonitors(std::span<const Monitor> monitors);
void stopMonitors(std::span<const Monitor> monitors);

}  // namespace qbv
