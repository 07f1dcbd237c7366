#include "host/control/server.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/control/socket_place.h"

namespace qbv::control {

namespace {

using linux_backend::outOfTheWay;
using linux_backend::retried;

constexpr std::chrono::seconds kRestWithoutDescriptors{1};

bool wouldBlock() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

std::string lineOf(const Value& answer) {
  return answer.jsonText().value_or(R"({"error":"the answer cannot be written as JSON"})") + "\n";
}

}  // namespace

ControlServer::ControlServer(Descriptor listener, Requests requests, ServerLimits limits)
    : listener_(std::move(listener)), requests_(std::move(requests)), limits_(limits) {}

void ControlServer::serve() {
  for (;;) {
    std::vector<pollfd> entries = watched();
    if (retried([&] { return ::poll(entries.data(), entries.size(), millisecondsToDeadline()); }) < 0) return;
    const short listener = entries.front().revents;
    if ((listener & (POLLHUP | POLLERR | POLLNVAL)) != 0) return;
    if (listener != 0 && !acceptConnections()) return;
    if (acceptAgain_ && Clock::now() >= *acceptAgain_) acceptAgain_.reset();
    // Those accepted just now are at the end of the list and have no entry yet.
    auto connection = connections_.begin();
    for (std::size_t index = 1; index < entries.size(); ++index) {
      const auto current = connection++;
      if (!advance(*current, entries[index].revents)) connections_.erase(current);
    }
  }
}

std::vector<pollfd> ControlServer::watched() const {
  std::vector<pollfd> entries;
  entries.push_back({acceptAgain_ ? -1 : listener_.get(), POLLIN, 0});
  for (const Connection& connection : connections_)
    entries.push_back(
        {connection.socket.get(), connection.unsent.empty() ? short{POLLIN} : short{POLLOUT}, 0});
  return entries;
}

int ControlServer::millisecondsToDeadline() const {
  std::optional<Clock::time_point> first = acceptAgain_;
  for (const Connection& connection : connections_)
    first = first ? std::min(*first, connection.deadline) : connection.deadline;
  if (!first) return -1;
  using std::chrono::milliseconds;
  return static_cast<int>(
      std::max<milliseconds::rep>(std::chrono::ceil<milliseconds>(*first - Clock::now()).count(), 0));
}

bool ControlServer::acceptConnections() {
  for (;;) {
    Descriptor socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket) {
      admit(outOfTheWay(std::move(socket)));
      continue;
    }
    if (wouldBlock()) return true;
    if (errno == EINVAL || errno == EBADF || errno == ENOTSOCK)
      return false;  // what has its number now is not ours
    if (errno == EINTR || errno == ECONNABORTED) continue;
    acceptAgain_ = Clock::now() + kRestWithoutDescriptors;
    return true;
  }
}

void ControlServer::admit(Descriptor socket) {
  if (!peerIsSameUser(socket.get())) return;
  connections_.push_back({std::move(socket), Clock::now() + limits_.patience});
  if (connections_.size() <= limits_.connections) return;
  Connection& refused = connections_.back();
  reply(refused, Value::Dictionary{{kError, "too many connections"}});
  transmit(refused);
  connections_.pop_back();
}

bool ControlServer::advance(Connection& connection, short events) {
  if (events != 0) return connection.unsent.empty() ? receive(connection) : transmit(connection);
  return Clock::now() < connection.deadline;
}

bool ControlServer::receive(Connection& connection) {
  char buffer[4096];
  const ssize_t count =
      retried([&] { return ::recv(connection.socket.get(), buffer, sizeof buffer, MSG_DONTWAIT); });
  if (count < 0) return wouldBlock();
  if (count == 0) return false;
  connection.received.append(buffer, static_cast<std::size_t>(count));
  answerLines(connection);
  return transmit(connection);
}

void ControlServer::answerLines(Connection& connection) {
  std::string& received = connection.received;
  std::size_t taken = 0;
  std::size_t end = received.find('\n');
  for (; end != std::string::npos && end - taken < kMaximumMessageBytes; end = received.find('\n', taken)) {
    reply(connection, answerTo(received.substr(taken, end - taken), requests_));
    taken = end + 1;
    connection.deadline = Clock::now() + limits_.patience;
  }
  received.erase(0, taken);
  if (received.size() < kMaximumMessageBytes) return;
  reply(connection, Value::Dictionary{{kError, "the message is too long"}});
  connection.ends = true;
}

void ControlServer::reply(Connection& connection, const Value& answer) {
  connection.unsent += lineOf(answer);
}

bool ControlServer::transmit(Connection& connection) {
  std::string& unsent = connection.unsent;
  while (!unsent.empty()) {
    const ssize_t count = retried([&] {
      return ::send(connection.socket.get(), unsent.data(), unsent.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    });
    if (count < 0) return wouldBlock();
    unsent.erase(0, static_cast<std::size_t>(count));
    connection.deadline = Clock::now() + limits_.patience;
  }
  return !connection.ends;
}

}  // namespace qbv::control
