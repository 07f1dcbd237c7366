#include "host/standin/control_socket.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include "host/control/socket_place.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::standin {

namespace {

using control::ControlServer;
using control::SocketFolder;

struct OwnSocket {
  SocketFolder folder;
  pid_t owner;
};
constinit std::atomic<const OwnSocket*> ownSocket{nullptr};
constinit std::atomic<int> listener{-1};

void removeOwnSocket() {
  const OwnSocket* const own = ownSocket.load();
  if (own != nullptr && own->owner == ::getpid()) own->folder.remove(control::socketName(own->owner));
}

// Whoever connects after the parent has gone would wait for a child that never answers.
void closeListenerInChild() {
  const int inherited = listener.exchange(-1);
  if (inherited >= 0) ::close(inherited);
}

bool somebodyListens(const SocketFolder& folder, const std::string& name) {
  return static_cast<bool>(folder.connect(name)) || (errno != ECONNREFUSED && errno != ENOENT);
}

void serve(void* server) {
  static_cast<ControlServer*>(server)->serve();
}

}  // namespace

void removeDeadSockets(const SocketFolder& folder) {
  for (const std::string& name : folder.names())
    if (control::processOfSocket(name) && !somebodyListens(folder, name)) folder.remove(name);
}

void openControlSocket(control::Requests requests) {
  auto folder = SocketFolder::open(true);
  if (!folder) return;
  removeDeadSockets(*folder);
  const pid_t self = ::getpid();
  const std::string name = control::socketName(self);
  // A process of another process id space may share the folder and have the same id.
  if (somebodyListens(*folder, name)) return;
  control::Descriptor socket = folder->listen(name);
  if (!socket) return;
  listener = socket.get();
  ::pthread_atfork(nullptr, nullptr, closeListenerInChild);
  ownSocket = new OwnSocket{std::move(*folder), self};
  std::atexit(removeOwnSocket);
  // Never destroyed: it serves as long as the process lives.
  auto* const server = new ControlServer(std::move(socket), std::move(requests));
  if (!linux_backend::startThread("quib control", linux_backend::kHandlerStackBytes, serve, server))
    removeOwnSocket();
}

}  // namespace qbv::standin
