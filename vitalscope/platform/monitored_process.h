// Whether this process is the one that is meant.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

// False in a process that merely inherited the preload: $QUIBVITALSCOPE_TARGET names another process id.
// There nothing of this library may start, register or write anything. True where the variable is not set.
// Asks the environment and the kernel once, at the first call; every constructor that runs at load asks
// first. A forked child keeps its parent's answer (it is inert for another reason). Any thread.
QBV_EXPORT bool monitoredProcess() noexcept;

}  // namespace qbv
