#include "host/control/client.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "host/control/socket_place.h"

namespace qbv::control {

namespace {

using Clock = std::chrono::steady_clock;

bool waitFor(int descriptor, short events, Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  pollfd entry{descriptor, events, 0};
  return linux_backend::retried(
             [&] { return ::poll(&entry, 1, static_cast<int>(std::max<long>(left, 0))); }) > 0;
}

bool wouldBlock(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

std::string noSocket(int processId) {
  const std::string process = "process " + std::to_string(processId);
  const char* const runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime == nullptr || runtime[0] != '/')
    return process + " cannot be reached: XDG_RUNTIME_DIR, the folder of control sockets, is not set here";
  return process +
         " has no control socket: it runs without the stand-in host, or its main loop has not been seen yet";
}

}  // namespace

std::unique_ptr<Client> Client::connect(int processId, std::string& error) {
  const auto folder = SocketFolder::open(false);
  error = noSocket(processId);
  if (!folder) return nullptr;
  Descriptor socket = folder->connect(socketName(processId));
  if (!socket) {
    if (errno == ECONNREFUSED) error = "process " + std::to_string(processId) + " does not run any more";
    return nullptr;
  }
  if (!peerIsSameUser(socket.get())) {
    error = "process " + std::to_string(processId) + " is another user's";
    return nullptr;
  }
  error.clear();
  return std::unique_ptr<Client>(new Client(socket.release()));
}

Client::~Client() {
  ::close(descriptor_);
}

bool Client::sendLine(const std::string& line) {
  const auto deadline = Clock::now() + patience_;
  std::size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t count = linux_backend::retried([&] {
      return ::send(descriptor_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    });
    if (count >= 0)
      sent += static_cast<std::size_t>(count);
    else if (!wouldBlock(count) || !waitFor(descriptor_, POLLOUT, deadline))
      return false;
  }
  return true;
}

std::optional<std::string> Client::readLine() {
  const auto deadline = Clock::now() + patience_;
  char buffer[4096];
  for (std::size_t end = unread_.find('\n');; end = unread_.find('\n')) {
    if (end != std::string::npos) {
      std::string line = unread_.substr(0, end);
      unread_.erase(0, end + 1);
      return line;
    }
    if (!waitFor(descriptor_, POLLIN, deadline)) return std::nullopt;
    const ssize_t count =
        linux_backend::retried([&] { return ::recv(descriptor_, buffer, sizeof buffer, MSG_DONTWAIT); });
    if (count == 0 || (count < 0 && !wouldBlock(count))) return std::nullopt;
    if (count > 0) unread_.append(buffer, static_cast<std::size_t>(count));
  }
}

std::optional<Value> Client::request(const Value& message, std::string& error) {
  const std::optional<std::string> text = message.jsonText();
  if (!text) {
    error = "the request cannot be written as JSON";
    return std::nullopt;
  }
  // A process that refuses a request early has answered, also when it reads no further.
  sendLine(*text + "\n");
  const std::optional<std::string> line = readLine();
  std::optional<Value> answer;
  if (line) answer = Value::fromJSON(*line);
  if (!answer || answer->dictionary() == nullptr) {
    error = "the process did not answer";
    return std::nullopt;
  }
  if (const std::string* const refusal = (*answer)[kError].string()) {
    error = *refusal;
    return std::nullopt;
  }
  error.clear();
  return answer;
}

bool Client::post(const std::string& name, const Value& userInfo, std::string& error) {
  Value::Dictionary message{{kPost, name}};
  if (!userInfo.isNil()) message[kUserInfo] = userInfo;
  return request(message, error).has_value();
}

bool Client::beginProfile(std::string& error) {
  return request(Value::Dictionary{{kProfile, true}}, error).has_value();
}

std::optional<std::string> Client::endProfile(std::string& error) {
  const std::optional<Value> answer = request(Value::Dictionary{{kProfile, false}}, error);
  if (!answer) return std::nullopt;
  const std::string* const file = (*answer)[kProfileFile].string();
  if (file != nullptr) return *file;
  error = "the process does not say where it has written the profile";
  return std::nullopt;
}

std::optional<Value> Client::status(std::string& error) {
  return request(Value::Dictionary{{kStatus, true}}, error);
}

std::vector<int> listeningProcesses() {
  std::vector<int> found;
  const auto folder = SocketFolder::open(false);
  if (!folder) return found;
  for (const std::string& name : folder->names()) {
    const std::optional<int> processId = processOfSocket(name);
    if (processId && folder->connect(name)) found.push_back(*processId);
  }
  std::sort(found.begin(), found.end());
  return found;
}

}  // namespace qbv::control
