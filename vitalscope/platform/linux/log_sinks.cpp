#include "vitalscope/platform/linux/log_sinks.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>

#include "vitalscope/platform/linux/fork_guard.h"

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kSmallestPiece = 1024;  // what every system log takes

bool waitWritable(int descriptor) {
  pollfd entry{descriptor, POLLOUT, 0};
  return poll(&entry, 1, 1000) == 1;
}

bool sendPiece(int socketDescriptor, const std::string& header, std::string_view text) {
  const std::string datagram = header + std::string(text);
  const auto trySend = [&] {
    return send(socketDescriptor, datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0;
  };
  return trySend() || (errno == EAGAIN && waitWritable(socketDescriptor) && trySend());
}

// Length of the next piece: at most `limit`, up to a line's end where there is one.
std::size_t pieceLength(std::string_view text, std::size_t limit) {
  if (text.size() <= limit) return text.size();
  const std::size_t lineEnd = text.rfind('\n', limit - 1);
  return lineEnd == std::string_view::npos ? limit : lineEnd + 1;
}

void sendPieces(int socketDescriptor, const std::string& header, std::string_view text) {
  std::size_t limit = std::max(text.size(), kSmallestPiece);
  while (!text.empty()) {
    const std::size_t length = pieceLength(text, limit);
    if (sendPiece(socketDescriptor, header, text.substr(0, length))) {
      text.remove_prefix(length);
    } else if (errno == EMSGSIZE && limit > kSmallestPiece) {
      limit = std::max(limit / 2, kSmallestPiece);
    } else {
      return;
    }
  }
}

// While it lives a broken pipe raises no signal on this thread.
class PipeSignalHeld {
 public:
  PipeSignalHeld() {
    sigset_t pending;
    sigpending(&pending);
    alreadyPending_ = sigismember(&pending, SIGPIPE) == 1;
    sigemptyset(&pipe_);
    sigaddset(&pipe_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
  }
  ~PipeSignalHeld() {
    const timespec now{};
    if (broken_ && !alreadyPending_) sigtimedwait(&pipe_, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
  }
  PipeSignalHeld(const PipeSignalHeld&) = delete;
  PipeSignalHeld& operator=(const PipeSignalHeld&) = delete;
  void noteBroken() noexcept { broken_ = true; }

 private:
  sigset_t pipe_;
  sigset_t before_;
  bool alreadyPending_ = false;
  bool broken_ = false;
};

}  // namespace

void sendToSystemLog(const char* socketPath, const std::string& message) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (std::strlen(socketPath) >= sizeof address.sun_path) return;
  std::strcpy(address.sun_path, socketPath);
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return;
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    std::string header("<");
    header.append(std::to_string(LOG_USER | LOG_NOTICE)).append(">").append(program_invocation_short_name);
    header.append("[").append(std::to_string(getpid())).append("]: ");
    sendPieces(descriptor, header, message);
  }
  close(descriptor);
}

void writeWhole(int descriptor, const std::string& text) {
  static constinit std::mutex mutex;
  std::unique_lock lock(mutex, std::defer_lock);
  if (!isForkedChild()) lock.lock();
  PipeSignalHeld pipeSignal;
  std::string_view rest = text;
  while (!rest.empty()) {
    const ssize_t written = write(descriptor, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EPIPE) {
      pipeSignal.noteBroken();
      return;
    } else if (errno != EINTR && !(errno == EAGAIN && waitWritable(descriptor))) {
      return;
    }
  }
}

}  // namespace qbv::linux_backend
