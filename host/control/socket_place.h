// Where control sockets are, and sockets by name there.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::control {

using linux_backend::Descriptor;

// The folder of the control sockets, opened; it keeps its meaning when it is moved or replaced.
class SocketFolder {
 public:
  // $XDG_RUNTIME_DIR/quibvitalscope. Nothing when that variable holds no absolute path, or when the folder is
  // not there, is not this user's, or lets others in. `make`: make it when it is missing.
  static std::optional<SocketFolder> open(bool make);

  // A connected socket (blocking, closed on exec); none with errno: ENOENT no such socket, ECONNREFUSED
  // nobody listens any more.
  Descriptor connect(const std::string& name) const;
  // A listening socket (not blocking, closed on exec, 0600) under this name, in one step; what had the name
  // before is replaced. None with errno on failure.
  Descriptor listen(const std::string& name) const;
  bool remove(const std::string& name) const;
  // What is in the folder, in the system's order.
  std::vector<std::string> names() const;

 private:
  explicit SocketFolder(Descriptor folder) : folder_(std::move(folder)) {}

  Descriptor folder_;
};

std::string socketName(int processId);
// The process id of such a name; nothing for other names.
std::optional<int> processOfSocket(const std::string& name);

// Whether the process at the other end runs as this user.
bool peerIsSameUser(int socket);

}  // namespace qbv::control
