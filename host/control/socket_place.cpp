#include "host/control/socket_place.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace qbv::control {

namespace {

constexpr std::string_view kSuffix = ".sock";

// By way of the folder's descriptor, so that a long path is no obstacle and nobody can exchange it.
bool address(int folder, const std::string& name, sockaddr_un& result) {
  result = {};
  result.sun_family = AF_UNIX;
  const int length =
      std::snprintf(result.sun_path, sizeof result.sun_path, "/proc/self/fd/%d/%s", folder, name.c_str());
  return length > 0 && static_cast<std::size_t>(length) < sizeof result.sun_path;
}

Descriptor newSocket(int flags) {
  return linux_backend::outOfTheWay(Descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0)));
}

bool isPrivate(int folder) {
  struct stat status;
  return ::fstat(folder, &status) == 0 && status.st_uid == ::geteuid() && (status.st_mode & 077) == 0;
}

}  // namespace

std::optional<SocketFolder> SocketFolder::open(bool make) {
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || runtime[0] != '/') return std::nullopt;
  const std::string path = std::string(runtime) + "/quibvitalscope";
  if (make) ::mkdir(path.c_str(), 0700);
  Descriptor folder = linux_backend::outOfTheWay(
      Descriptor(::open(path.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)));
  if (!folder || !isPrivate(folder.get())) return std::nullopt;
  return SocketFolder(std::move(folder));
}

Descriptor SocketFolder::connect(const std::string& name) const {
  sockaddr_un where;
  Descriptor socket = newSocket(0);
  if (!socket || !address(folder_.get(), name, where)) return Descriptor();
  const auto connected = linux_backend::retried(
      [&] { return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where); });
  return connected == 0 ? std::move(socket) : Descriptor();
}

Descriptor SocketFolder::listen(const std::string& name) const {
  // Bound under another name and renamed once it listens: who finds it can connect at once.
  const std::string unfinished = name + ".new";
  remove(unfinished);
  sockaddr_un where;
  Descriptor socket = newSocket(SOCK_NONBLOCK);
  if (!socket || !address(folder_.get(), unfinished, where)) return Descriptor();
  ::fchmod(socket.get(), 0600);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&where), sizeof where) == 0 &&
      ::listen(socket.get(), SOMAXCONN) == 0 &&
      ::renameat(folder_.get(), unfinished.c_str(), folder_.get(), name.c_str()) == 0)
    return socket;
  const int reason = errno;
  remove(unfinished);
  errno = reason;
  return Descriptor();
}

bool SocketFolder::remove(const std::string& name) const {
  return ::unlinkat(folder_.get(), name.c_str(), 0) == 0;
}

std::vector<std::string> SocketFolder::names() const {
  std::vector<std::string> names;
  // The folder itself was opened for look-ups only.
  const int readable = ::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* const entries = readable >= 0 ? ::fdopendir(readable) : nullptr;
  if (entries == nullptr) return names;
  while (const dirent* const entry = ::readdir(entries)) names.emplace_back(entry->d_name);
  ::closedir(entries);
  return names;
}

std::string socketName(int processId) {
  return std::to_string(processId).append(kSuffix);
}

std::optional<int> processOfSocket(const std::string& name) {
  if (!name.ends_with(kSuffix)) return std::nullopt;
  int processId = 0;
  const char* const end = name.data() + name.size() - kSuffix.size();
  const auto [stopped, error] = std::from_chars(name.data(), end, processId);
  if (error != std::errc() || stopped != end || processId <= 0) return std::nullopt;
  return processId;
}

bool peerIsSameUser(int socket) {
  ucred peer{};
  socklen_t length = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 && peer.uid == ::geteuid();
}

}  // namespace qbv::control
