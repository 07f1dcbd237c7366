// The desktop's portal: a service on the session bus that shows panels for any program, in a sandbox or not.
#include <cerrno>
#include <cstdint>
#include <string>
#include <string_view>

#include "vitalscope/platform/linux/bus_library.h"
#include "vitalscope/platform/linux/folder_choice.h"

namespace qbv::linux_backend {
namespace {

constexpr char kPortal[] = "org.freedesktop.portal.Desktop";
constexpr char kPath[] = "/org/freedesktop/portal/desktop";
constexpr char kFileChooser[] = "org.freedesktop.portal.FileChooser";
constexpr std::uint32_t kFirstVersionWithFolders = 3;
constexpr std::uint32_t kChosen = 0;  // a response; every other means that nothing was
constexpr std::uint64_t kForEver = UINT64_MAX;

// The functions of the bus library that are used here, as its stable interface has them.
struct Library {
  int (*openUser)(sd_bus**);
  sd_bus* (*flushCloseUnref)(sd_bus*);
  int (*getPropertyTrivial)(sd_bus*, const char* destination, const char* path, const char* interface,
                            const char* member, void* error, char type, void* value);
  int (*matchSignal)(sd_bus*, sd_bus_slot**, const char* sender, const char* path, const char* interface,
                     const char* member, BusHandler, void* context);
  int (*addMatch)(sd_bus*, sd_bus_slot**, const char* match, BusHandler, void* context);
  int (*newMethodCall)(sd_bus*, sd_bus_message**, const char* destination, const char* path,
                       const char* interface, const char* member);
  int (*append)(sd_bus_message*, const char* types, ...);
  int (*appendArray)(sd_bus_message*, char type, const void* bytes, std::size_t size);
  int (*openContainer)(sd_bus_message*, char type, const char* contents);
  int (*closeContainer)(sd_bus_message*);
  int (*call)(sd_bus*, sd_bus_message*, std::uint64_t microseconds, void* error, sd_bus_message** reply);
  sd_bus_message* (*unref)(sd_bus_message*);
  int (*process)(sd_bus*, sd_bus_message**);
  int (*wait)(sd_bus*, std::uint64_t microseconds);
  int (*read)(sd_bus_message*, const char* types, ...);
  int (*enterContainer)(sd_bus_message*, char type, const char* contents);
  int (*exitContainer)(sd_bus_message*);
  int (*skip)(sd_bus_message*, const char* types);

  template <class Find>
  bool find(Find&& find) {
    return find(openUser, "sd_bus_open_user") && find(flushCloseUnref, "sd_bus_flush_close_unref") &&
           find(getPropertyTrivial, "sd_bus_get_property_trivial") &&
           find(matchSignal, "sd_bus_match_signal") && find(addMatch, "sd_bus_add_match") &&
           find(newMethodCall, "sd_bus_message_new_method_call") && find(append, "sd_bus_message_append") &&
           find(appendArray, "sd_bus_message_append_array") &&
           find(openContainer, "sd_bus_message_open_container") &&
           find(closeContainer, "sd_bus_message_close_container") && find(call, "sd_bus_call") &&
           find(unref, "sd_bus_message_unref") && find(process, "sd_bus_process") &&
           find(wait, "sd_bus_wait") && find(read, "sd_bus_message_read") &&
           find(enterContainer, "sd_bus_message_enter_container") &&
           find(exitContainer, "sd_bus_message_exit_container") && find(skip, "sd_bus_message_skip");
  }
};

const Library* library() {
  static const Library* const opened = BusLibrary::open<Library>();
  return opened;
}

// One request on a connection of its own, so whatever response comes is its.
class PortalRequest {
 public:
  explicit PortalRequest(const Library& bus) : bus_(bus) {}
  ~PortalRequest() {
    if (connection_ != nullptr) bus_.flushCloseUnref(connection_);
  }
  PortalRequest(const PortalRequest&) = delete;
  PortalRequest& operator=(const PortalRequest&) = delete;

  bool connect() {
    std::uint32_t version = 0;
    return bus_.openUser(&connection_) >= 0 &&
           bus_.getPropertyTrivial(connection_, kPortal, kPath, kFileChooser, "version", nullptr, 'u',
                                   &version) >= 0 &&
           version >= kFirstVersionWithFolders && listen();
  }

  bool show(const FolderRequest& request) {
    sd_bus_message* call = nullptr;
    if (bus_.newMethodCall(connection_, &call, kPortal, kPath, kFileChooser, "OpenFile") < 0) return false;
    const bool shown = addArguments(call, request) &&
                       bus_.call(connection_, call, /*the usual patience*/ 0, nullptr, nullptr) >= 0;
    bus_.unref(call);
    return shown;
  }

  std::optional<std::string> waitForAnswer() {
    while (!over_) {
      const int handled = bus_.process(connection_, nullptr);
      if (handled < 0) break;
      if (handled > 0) continue;
      const int waited = bus_.wait(connection_, kForEver);
      if (waited < 0 && waited != -EINTR) break;
    }
    return url_;
  }

 private:
  bool listen() {
    const std::string portalChanges =
        "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
        std::string(kPortal) + "'";
    return bus_.matchSignal(connection_, nullptr, kPortal, nullptr, "org.freedesktop.portal.Request",
                            "Response", onResponse, this) >= 0 &&
           bus_.addMatch(connection_, nullptr, portalChanges.c_str(), onPortalChange, this) >= 0;
  }

  // Parent window, title and options. There is no parent: a window of the host's toolkit is not known here.
  bool addArguments(sd_bus_message* call, const FolderRequest& request) const {
    return bus_.append(call, "ss", "", request.prompt.c_str()) >= 0 &&
           bus_.openContainer(call, 'a', "{sv}") >= 0 &&
           bus_.append(call, "{sv}", "directory", "b", 1) >= 0 &&
           bus_.append(call, "{sv}", "accept_label", "s", request.prompt.c_str()) >= 0 &&
           addStartFolder(call, request.startFolder) && bus_.closeContainer(call) >= 0;
  }

  // A path is bytes with their terminator there.
  bool addStartFolder(sd_bus_message* call, const std::string& folder) const {
    return bus_.openContainer(call, 'e', "sv") >= 0 && bus_.append(call, "s", "current_folder") >= 0 &&
           bus_.openContainer(call, 'v', "ay") >= 0 &&
           bus_.appendArray(call, 'y', folder.c_str(), folder.size() + 1) >= 0 &&
           bus_.closeContainer(call) >= 0 && bus_.closeContainer(call) >= 0;
  }

  static int onResponse(sd_bus_message* message, void* context, void*) {
    auto* const self = static_cast<PortalRequest*>(context);
    std::uint32_t response = 0;
    if (self->bus_.read(message, "u", &response) >= 0 && response == kChosen) self->readURL(message);
    self->over_ = true;
    return 0;
  }

  // A portal that goes takes its panel along.
  static int onPortalChange(sd_bus_message*, void* context, void*) {
    static_cast<PortalRequest*>(context)->over_ = true;
    return 0;
  }

  void readURL(sd_bus_message* message) {
    if (bus_.enterContainer(message, 'a', "{sv}") < 0) return;
    while (bus_.enterContainer(message, 'e', "sv") > 0) {
      const char* key = nullptr;
      if (bus_.read(message, "s", &key) < 0) return;
      if (std::string_view(key) == "uris") return readFirstOf(message);
      if (bus_.skip(message, "v") < 0 || bus_.exitContainer(message) < 0) return;
    }
  }

  void readFirstOf(sd_bus_message* message) {
    const char* url = nullptr;
    if (bus_.enterContainer(message, 'v', "as") > 0 && bus_.enterContainer(message, 'a', "s") > 0 &&
        bus_.read(message, "s", &url) > 0)
      url_ = url;
  }

  const Library& bus_;
  sd_bus* connection_ = nullptr;
  bool over_ = false;
  std::optional<std::string> url_;
};

}  // namespace

std::optional<FolderOutcome> askPortal(const FolderRequest& request) {
  const Library* const bus = library();
  if (bus == nullptr) return std::nullopt;
  PortalRequest panel(*bus);
  if (!panel.connect() || !panel.show(request)) return std::nullopt;
  return FolderOutcome{panel.waitForAnswer()};
}

}  // namespace qbv::linux_backend
