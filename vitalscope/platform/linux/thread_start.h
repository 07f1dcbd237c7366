// Starts the backend's own threads.
#pragma once

#include <cstddef>

#include "vitalscope/platform/export.h"

namespace qbv::linux_backend {

// Stack of a thread that runs handlers: report text is formatted and call chains are unwound on it, and the
// host's own methods are called from there. 512 KB leaves both room; only touched pages cost memory, but a
// host that locks its memory (mlockall) pays for the whole of it, which is why it is not the usual 8 MB.
inline constexpr std::size_t kHandlerStackBytes = std::size_t{512} * 1024;

// A detached thread that runs entry(argument). It carries `name` (at most 15 characters) and blocks every
// signal but those a fault of its own raises (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS): the host's
// signals never land on it, and the host's crash handler still sees a crash there. Answers false when the
// system refuses a thread. Any thread, not in signal handlers.
QBV_EXPORT bool startThread(const char* name, std::size_t stackBytes, void (*entry)(void*), void* argument);

}  // namespace qbv::linux_backend
