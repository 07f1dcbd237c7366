// Signal handlers set at the kernel itself, past wrappers of the C library's function that delay or swallow
// them.
#pragma once

#include <csignal>
#include <cstdint>

namespace qbv::linux_backend {

using SignalHandler = void (*)(int, siginfo_t*, void*);

// The kernel's own struct sigaction.
struct SignalAction {
  SignalHandler handler = nullptr;
  std::uint64_t flags = 0;
#if defined(__x86_64__)
  void (*restorer)() = nullptr;
#endif
  std::uint64_t mask = 0;
};

// Reads a signal's action, or sets it (the restorer is filled in). Async-signal-safe. False on failure.
bool readSignalAction(int signal, SignalAction& action);
bool writeSignalAction(int signal, SignalAction action);

}  // namespace qbv::linux_backend
