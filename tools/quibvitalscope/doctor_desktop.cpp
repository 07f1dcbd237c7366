#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "host/standin/x11_display.h"
#include "tools/quibvitalscope/doctor_checks.h"
#include "tools/quibvitalscope/run_target.h"
#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::cli {
namespace {

using State = Check::State;

std::string variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

struct DisplayFacts {
  bool reached = false;
  bool tellsActiveWindow = false;
};

// Nothing when it does not answer in three seconds; the thread that asks is then left behind.
std::optional<DisplayFacts> askDisplay() {
  if (variable("DISPLAY").empty()) return DisplayFacts();
  std::promise<DisplayFacts> answer;
  std::future<DisplayFacts> answered = answer.get_future();
  std::thread([answer = std::move(answer)]() mutable {
    const auto display = standin::X11Display::connect(nullptr);
    answer.set_value({display != nullptr, display != nullptr && display->activeWindow().has_value()});
  }).detach();
  if (answered.wait_for(std::chrono::seconds(3)) != std::future_status::ready) return std::nullopt;
  return answered.get();
}

Check display(const std::optional<DisplayFacts>& facts) {
  Check check{"display", State::missing, false, "DISPLAY is not set", "the dashboard window", ""};
  const std::string name = variable("DISPLAY");
  if (facts && facts->reached) check.state = State::works;
  if (!name.empty()) {
    check.finding = "X display " + name;
    if (!facts) check.finding += " does not answer";
    if (facts && !facts->reached) check.finding += " cannot be reached";
  }
  if (check.state == State::missing) check.fallback = "no dashboard; everything else works";
  return check;
}

Check windowManager(const std::optional<DisplayFacts>& facts) {
  Check check{"window-manager", State::limited, false, "", "whether the application is the one in front", ""};
  if (facts && facts->tellsActiveWindow) {
    check.state = State::works;
    check.finding = "tells the active window (_NET_ACTIVE_WINDOW)";
    return check;
  }
  check.finding = facts && facts->reached ? "no window manager tells the active window" : "no X display";
  check.fallback = "'run' takes the application as being in front all the time";
  return check;
}

// Whether somebody listens on the socket. Abstract sockets are given with a leading '@'.
bool answers(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path.data(), path.size());
  const bool abstract = path.front() == '@';
  if (abstract) address.sun_path[0] = '\0';
  const auto length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + (abstract ? 0 : 1));
  const linux_backend::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return socket && ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0;
}

// The socket in a bus address ("unix:path=/run/user/1000/bus,guid=…"); "" for other transports.
std::string socketOf(std::string_view address) {
  for (const auto& [key, prefix] : {std::pair{"unix:path=", ""}, std::pair{"unix:abstract=", "@"}}) {
    const auto at = address.find(key);
    if (at == std::string_view::npos) continue;
    const std::string_view path = address.substr(at + std::strlen(key));
    return prefix + std::string(path.substr(0, path.find_first_of(",;")));
  }
  return "";
}

Check bus(const char* name, const std::string& socket, const std::string& purpose,
          const std::string& fallback) {
  Check check{name, State::works, false, socket, purpose, ""};
  if (answers(socket)) return check;
  check.state = State::limited;
  check.finding = socket.empty() ? "no address is known" : socket + " does not answer";
  check.fallback = fallback;
  return check;
}

Check sessionBus() {
  std::string socket = socketOf(variable("DBUS_SESSION_BUS_ADDRESS"));
  if (socket.empty() && !variable("XDG_RUNTIME_DIR").empty()) socket = variable("XDG_RUNTIME_DIR") + "/bus";
  return bus("session-bus", socket, "asking the desktop for a folder",
             "a dialog program asks for the folder");
}

Check systemBus() {
  std::string socket = socketOf(variable("DBUS_SYSTEM_BUS_ADDRESS"));
  if (socket.empty()) socket = "/run/dbus/system_bus_socket";
  return bus("system-bus", socket, "hearing of sleep and wake",
             "sleep is seen afterwards, by comparing two clocks");
}

Check loginManager() {
  std::error_code error;
  const bool runs = std::filesystem::is_directory("/run/systemd/seats", error);
  Check check{"login-manager", State::works, false, "runs", "hearing of sleep and wake", ""};
  if (runs) return check;
  check.state = State::limited;
  check.finding = "does not run";
  check.fallback = "sleep is seen afterwards, by comparing two clocks";
  return check;
}

Check opener() {
  Check check{"opener",
              State::missing,
              false,
              "neither xdg-open nor gio is on the PATH",
              "opening a leak report or the profiler page for the user",
              "the files are only written"};
  for (const char* const name : {"xdg-open", "gio"}) {
    Refusal refusal;
    const auto path = findProgram(name, variable("PATH"), refusal);
    if (!path) continue;
    check.state = State::works;
    check.finding = *path;
    check.fallback.clear();
    break;
  }
  return check;
}

}  // namespace

std::vector<Check> desktopChecks() {
  const auto facts = askDisplay();
  return {display(facts), windowManager(facts), sessionBus(), systemBus(), loginManager(), opener()};
}

}  // namespace qbv::cli
