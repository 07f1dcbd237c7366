// Where log messages go.
#pragma once

#include <string>

#include "vitalscope/platform/export.h"

namespace qbv::linux_backend {

// Sends one message to the system log daemon that listens on `socketPath`, with a socket of its own: the
// host's use of syslog() (name, facility, mask, connection) stays as it is. A message longer than a datagram
// may be is cut at line ends into several. Dropped when there is no daemon, or when one is busy for a whole
// second.
QBV_EXPORT void sendToSystemLog(const char* socketPath, const std::string& message);

// Writes the text to the descriptor in one piece as far as the system allows it; messages of several threads
// do not mix. A broken pipe raises no signal. When a reader does not take the text for a second, the rest is
// dropped.
void writeWhole(int descriptor, const std::string& text);

}  // namespace qbv::linux_backend
