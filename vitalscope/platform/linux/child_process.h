// Shells that run for the monitor.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qbv::linux_backend {

// Runs bash with these arguments (the first is its own name) to its end, with what processes.h promises to
// children; `extraFlags` are posix_spawn's. What it wrote to standard output until that was closed; nothing
// when it cannot be started. Waits; any thread.
std::optional<std::string> runBash(std::vector<std::string> arguments, short extraFlags);

}  // namespace qbv::linux_backend
