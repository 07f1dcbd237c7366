// Whether this process is the one that is meant.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

// False in a process that merely inherited the preload: $QUIBVITALSCOPE_TARGET names another process id.
// There nothing of this library may start, register or write anything. True where the variable is not set.
// Asks the environment and the kernel once, at the first call; every constructor that runs at load asks
// first. A forked child keeps its parent's answer (it is inert for another reason). Any thread.
QBV_EXPORT bool monitoredProcess() noexcept;

// True in a child that was forked after platform() was first asked for and has called no exec: no thread of
// this library exists there, and locks may be held by threads that do not. Nothing may report there. One
// load; any thread, async-signal-safe.
QBV_EXPORT bool forkedChild() noexcept;

}  // namespace qbv
