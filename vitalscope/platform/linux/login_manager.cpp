#include "vitalscope/platform/linux/login_manager.h"

#include <utility>

#include "vitalscope/platform/linux/bus_library.h"

namespace qbv::linux_backend {

namespace {

// The functions of the bus library that are used here, as its stable interface has them.
struct Library {
  int (*openSystem)(sd_bus**);
  sd_bus* (*flushCloseUnref)(sd_bus*);
  int (*matchSignal)(sd_bus*, sd_bus_slot**, const char* sender, const char* path, const char* interface,
                     const char* member, BusHandler, void* context);
  int (*process)(sd_bus*, sd_bus_message**);
  int (*descriptor)(sd_bus*);
  int (*events)(sd_bus*);
  int (*timeout)(sd_bus*, std::uint64_t* microseconds);
  int (*readBasic)(sd_bus_message*, char type, void* value);

  template <class Find>
  bool find(Find&& find) {
    return find(openSystem, "sd_bus_open_system") && find(flushCloseUnref, "sd_bus_flush_close_unref") &&
           find(matchSignal, "sd_bus_match_signal") && find(process, "sd_bus_process") &&
           find(descriptor, "sd_bus_get_fd") && find(events, "sd_bus_get_events") &&
           find(timeout, "sd_bus_get_timeout") && find(readBasic, "sd_bus_message_read_basic");
  }
};

const Library* library() {
  static const Library* const opened = BusLibrary::open<Library>();
  return opened;
}

}  // namespace

struct LoginManager::Bus {
  const Library& library;
  std::function<void(bool)> sleeping;
  sd_bus* connection = nullptr;

  ~Bus() {
    if (connection != nullptr) library.flushCloseUnref(connection);
  }

  static int onSignal(sd_bus_message* message, void* context, void*) {
    const auto* const self = static_cast<Bus*>(context);
    int sleeping = 0;
    if (self->library.readBasic(message, 'b', &sleeping) > 0) self->sleeping(sleeping != 0);
    return 0;
  }
};

LoginManager::LoginManager(std::unique_ptr<Bus> bus) : bus_(std::move(bus)) {}
LoginManager::~LoginManager() = default;

std::unique_ptr<LoginManager> LoginManager::connect(std::function<void(bool)> sleeping) {
  const Library* const found = library();
  if (found == nullptr) return nullptr;
  auto bus = std::make_unique<Bus>(Bus{*found, std::move(sleeping)});
  if (found->openSystem(&bus->connection) < 0) return nullptr;
  // Sent once the bus has said hello; from then on only this sender's signals come.
  if (found->matchSignal(bus->connection, nullptr, "org.freedesktop.login1", "/org/freedesktop/login1",
                         "org.freedesktop.login1.Manager", "PrepareForSleep", Bus::onSignal, bus.get()) < 0)
    return nullptr;
  return std::unique_ptr<LoginManager>(new LoginManager(std::move(bus)));
}

std::optional<LoginManager::Wait> LoginManager::process() {
  const Library& library = bus_->library;
  int handled = 0;
  do {
    handled = library.process(bus_->connection, nullptr);
    if (handled < 0) return std::nullopt;
  } while (handled > 0);
  const int descriptor = library.descriptor(bus_->connection);
  const int events = library.events(bus_->connection);
  std::uint64_t deadline = UINT64_MAX;
  if (descriptor < 0 || events < 0 || library.timeout(bus_->connection, &deadline) < 0) return std::nullopt;
  if (deadline != UINT64_MAX) deadline *= 1000;
  return Wait{descriptor, static_cast<short>(events), deadline};
}

}  // namespace qbv::linux_backend
