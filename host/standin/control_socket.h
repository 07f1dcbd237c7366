// This process's control socket.
#pragma once

#include "host/control/server.h"
#include "host/control/socket_place.h"

namespace qbv::standin {

// Makes the socket and serves it on a thread of its own, "quib control". Once per process, on a worker
// thread. Does nothing when there is no runtime folder or no thread to be had. Sockets of processes that are
// gone are removed by the way; this process's own when it exits. A forked child closes its copy.
void openControlSocket(control::Requests requests);

// Removes sockets that nobody listens on.
void removeDeadSockets(const control::SocketFolder& folder);

}  // namespace qbv::standin
