// The login manager's word about sleep, over the system bus.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace qbv::linux_backend {

// A connection of its own to the system bus ($DBUS_SYSTEM_BUS_ADDRESS, else the usual one). The bus library
// is opened when the first connection is made and stays open; nothing is linked. One thread at a time.
class LoginManager {
 public:
  // `sleeping` gets true when the machine is about to sleep and false when it has woken or stayed awake after
  // all; it runs in process(). Null without a library or a bus.
  static std::unique_ptr<LoginManager> connect(std::function<void(bool)> sleeping);
  ~LoginManager();
  LoginManager(const LoginManager&) = delete;
  LoginManager& operator=(const LoginManager&) = delete;

  // What poll() shall wait for: descriptor, events, and until when (nanoseconds of the monotonic clock; the
  // greatest number: without end).
  struct Wait {
    int descriptor;
    short events;
    std::uint64_t deadline;
  };
  // Handles all that has come. Nothing when the bus is gone.
  std::optional<Wait> process();

 private:
  struct Bus;
  explicit LoginManager(std::unique_ptr<Bus> bus);
  const std::unique_ptr<Bus> bus_;
};

}  // namespace qbv::linux_backend
