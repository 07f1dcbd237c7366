// Posts the machine's sleep and wake on the workspace's notification centre.
#pragma once

#include "vitalscope/platform/notifications.h"

namespace qbv::linux_backend {

// Starts the watch unless it runs, on a thread of its own, "quib sleep", that sleeps itself: it wakes for the
// login manager's signals and when the machine has woken; where there is no bus, also every half minute for a
// look at the clocks. Without a thread to be had nothing is ever posted. `centre` must live as long as the
// process. Any thread; nothing in a forked child.
void startSleepWatch(NotificationCentre& centre);

}  // namespace qbv::linux_backend
