// Which waits survive a signal.
#pragma once

#include "vitalscope/platform/linux/blocked_thread.h"

namespace qbv::linux_backend {

// Whether the kernel takes a wait up again, as if nothing had happened, after a handler that was installed
// with SA_RESTART; for a thread of this process, blocked as the line says. Poll, select, epoll, the sleeps,
// waits with a time limit, messages and semaphores of System V, and waits for signals end early instead, and
// so does whatever is not known to be restarted. One system call at most.
bool waitSurvivesSignal(const SystemCallLine& line);

}  // namespace qbv::linux_backend
