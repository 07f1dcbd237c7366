// Talks to a monitored process through its control socket.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/control/protocol.h"
#include "vitalscope/platform/value.h"

namespace qbv::control {

// One connection. One thread at a time. Every failure is a sentence for the user, without a full stop.
class Client {
 public:
  // Null, with the reason in `error`, when the process has no control socket, does not listen, or is another
  // user's.
  static std::unique_ptr<Client> connect(int processId, std::string& error);
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  // Sends a dictionary and waits for the answer, 10 seconds unless set otherwise: a dictionary without
  // "error". Nothing, with the reason in `error`, when the process refuses it, says nothing, or is gone; the
  // connection is of no use after any of the last two.
  std::optional<Value> request(const Value& message, std::string& error);
  void setPatience(std::chrono::seconds patience) { patience_ = patience; }
  // The requests there are.
  bool post(const std::string& name, const Value& userInfo, std::string& error);
  bool beginProfile(std::string& error);
  // The path of what was recorded.
  std::optional<std::string> endProfile(std::string& error);
  std::optional<Value> status(std::string& error);

 private:
  explicit Client(int descriptor) : descriptor_(descriptor) {}
  bool sendLine(const std::string& line);
  std::optional<std::string> readLine();

  const int descriptor_;
  std::chrono::seconds patience_{10};
  std::string unread_;
};

// Ids of the user's processes that listen on a control socket at this moment, ascending.
std::vector<int> listeningProcesses();

}  // namespace qbv::control
