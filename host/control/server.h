// The process's end of the control socket.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include "host/control/protocol.h"
#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/value.h"

struct pollfd;

namespace qbv::control {

using linux_backend::Descriptor;

// What the requests do. Run on the thread that serves.
struct Requests {
  std::function<void(const std::string& name, const Value& userInfo)> post;
  std::function<Value()> status;  // a dictionary
  // Begins or ends a profiling run; the path of what it recorded, "" when it begins. Nothing when none can
  // begin because one is on, or none can end because none is.
  std::function<std::optional<std::string>(bool on)> profile = {};
};

// The answer to one line. Never fails: what is wrong with the line is an answer too.
Value answerTo(const std::string& line, const Requests& requests);

struct ServerLimits {
  std::size_t connections = 8;
  // How long a connection may stay without a whole request, or without taking its answer.
  std::chrono::milliseconds patience{10000};
};

// Serves one listening socket, on one thread: answers the requests of a connection one by one, refuses other
// users, what is too long and who comes when too many are there, and drops who is slow. Only a request's own
// work can keep it busy.
class ControlServer {
 public:
  ControlServer(Descriptor listener, Requests requests, ServerLimits limits = {});

  // Returns when the listening socket is shut down or taken away; connections end then.
  void serve();

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection {
    Descriptor socket;
    Clock::time_point deadline;
    std::string received = {};
    std::string unsent = {};
    bool ends = false;  // once what is unsent has been taken
  };

  std::vector<pollfd> watched() const;
  int millisecondsToDeadline() const;
  bool acceptConnections();
  void admit(Descriptor socket);
  // These answer false when the connection is over.
  bool advance(Connection& connection, short events);
  bool receive(Connection& connection);
  bool transmit(Connection& connection);
  void answerLines(Connection& connection);
  void reply(Connection& connection, const Value& answer);

  const Descriptor listener_;
  const Requests requests_;
  const ServerLimits limits_;
  std::list<Connection> connections_;
  std::optional<Clock::time_point>
      acceptAgain_;  // the process has no descriptor left until then, it is hoped
};

}  // namespace qbv::control
