#include "host/standin/x11_display.h"

#include <dlfcn.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace qbv::standin {

namespace {

// The functions of the client library that are used here, found at run time.
struct Library {
  decltype(&xcb_connect) connect;
  decltype(&xcb_disconnect) disconnect;
  decltype(&xcb_connection_has_error) hasError;
  decltype(&xcb_get_setup) setup;
  decltype(&xcb_setup_roots_iterator) roots;
  decltype(&xcb_screen_next) nextScreen;
  decltype(&xcb_intern_atom) internAtom;
  decltype(&xcb_intern_atom_reply) internAtomReply;
  decltype(&xcb_get_property) getProperty;
  decltype(&xcb_get_property_reply) getPropertyReply;
  decltype(&xcb_get_property_value) propertyValue;
  decltype(&xcb_get_property_value_length) propertyLength;
  decltype(&xcb_change_window_attributes) changeAttributes;
  decltype(&xcb_flush) flush;
  decltype(&xcb_wait_for_event) waitForEvent;
  decltype(&xcb_poll_for_event) pollForEvent;
  bool complete = true;

  explicit Library(void* handle) {
    const auto find = [&](auto& function, const char* name) {
      function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(handle, name));
      complete = complete && function != nullptr;
    };
    find(connect, "xcb_connect");
    find(disconnect, "xcb_disconnect");
    find(hasError, "xcb_connection_has_error");
    find(setup, "xcb_get_setup");
    find(roots, "xcb_setup_roots_iterator");
    find(nextScreen, "xcb_screen_next");
    find(internAtom, "xcb_intern_atom");
    find(internAtomReply, "xcb_intern_atom_reply");
    find(getProperty, "xcb_get_property");
    find(getPropertyReply, "xcb_get_property_reply");
    find(propertyValue, "xcb_get_property_value");
    find(propertyLength, "xcb_get_property_value_length");
    find(changeAttributes, "xcb_change_window_attributes");
    find(flush, "xcb_flush");
    find(waitForEvent, "xcb_wait_for_event");
    find(pollForEvent, "xcb_poll_for_event");
  }
};

const Library* library() {
  static const Library* const opened = []() -> const Library* {
    void* const handle = ::dlopen("libxcb.so.1", RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) return nullptr;
    auto found = std::make_unique<const Library>(handle);
    return found->complete ? found.release() : nullptr;
  }();
  return opened;
}

// What the client library hands over is freed with the C library's function.
struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Reply = std::unique_ptr<T, Free>;

constexpr std::uint8_t kSentByClient = 0x80;
// In units of four bytes. A session with more windows than this is looked at in part.
constexpr std::uint32_t kMostWindows = 4096;

}  // namespace

struct X11Display::Connection {
  const Library& library;
  xcb_connection_t* display;
  xcb_window_t root = 0;
  xcb_atom_t activeWindow = 0;
  xcb_atom_t clientList = 0;
  xcb_atom_t processId = 0;

  xcb_atom_t atom(const char* name) const {
    const auto length = static_cast<std::uint16_t>(std::strlen(name));
    const Reply<xcb_intern_atom_reply_t> reply(
        library.internAtomReply(display, library.internAtom(display, 0, length, name), nullptr));
    return reply != nullptr ? reply->atom : 0;
  }
  xcb_window_t rootOf(int screen) const {
    xcb_screen_iterator_t screens = library.roots(library.setup(display));
    for (; screen > 0 && screens.rem > 1; --screen) library.nextScreen(&screens);
    return screens.rem > 0 ? screens.data->root : 0;
  }
  bool concerns(const xcb_generic_event_t& event) const {
    if ((event.response_type & ~kSentByClient) != XCB_PROPERTY_NOTIFY) return false;
    const xcb_atom_t changed = reinterpret_cast<const xcb_property_notify_event_t&>(event).atom;
    return changed == activeWindow || changed == clientList;
  }
};

X11Display::X11Display(std::unique_ptr<Connection> connection) : x_(std::move(connection)) {}

X11Display::~X11Display() {
  x_->library.disconnect(x_->display);
}

std::unique_ptr<X11Display> X11Display::connect(const char* name) {
  const Library* const found = library();
  if (found == nullptr) return nullptr;
  int screen = 0;
  xcb_connection_t* const display = found->connect(name, &screen);
  std::unique_ptr<X11Display> made(new X11Display(std::make_unique<Connection>(Connection{*found, display})));
  if (made->lost()) return nullptr;
  made->x_->root = made->x_->rootOf(screen);
  made->x_->activeWindow = made->x_->atom("_NET_ACTIVE_WINDOW");
  made->x_->clientList = made->x_->atom("_NET_CLIENT_LIST");
  made->x_->processId = made->x_->atom("_NET_WM_PID");
  return made;
}

bool X11Display::lost() const {
  return x_->library.hasError(x_->display) != 0;
}

bool X11Display::watchRoot() {
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  x_->library.changeAttributes(x_->display, x_->root, XCB_CW_EVENT_MASK, &events);
  return x_->library.flush(x_->display) > 0;
}

bool X11Display::waitForChange() {
  using Event = Reply<xcb_generic_event_t>;
  bool changed = false;
  while (!changed) {
    const Event event(x_->library.waitForEvent(x_->display));
    if (event == nullptr) return false;
    changed = x_->concerns(*event);
  }
  // One look serves for all that has come by now.
  while (Event(x_->library.pollForEvent(x_->display)) != nullptr) {
  }
  return true;
}

std::optional<std::vector<std::uint32_t>> X11Display::numbers(std::uint32_t window, std::uint32_t property,
                                                              std::uint32_t most) {
  const Reply<xcb_get_property_reply_t> reply(x_->library.getPropertyReply(
      x_->display,
      x_->library.getProperty(x_->display, 0, window, property, XCB_GET_PROPERTY_TYPE_ANY, 0, most),
      nullptr));
  if (reply == nullptr || reply->type == XCB_NONE || reply->format != 32) return std::nullopt;
  const auto bytes = static_cast<std::size_t>(x_->library.propertyLength(reply.get()));
  std::vector<std::uint32_t> values(bytes / sizeof(std::uint32_t));
  if (!values.empty())
    std::memcpy(values.data(), x_->library.propertyValue(reply.get()), values.size() * sizeof values.front());
  return values;
}

std::optional<std::uint32_t> X11Display::activeWindow() {
  const auto values = numbers(x_->root, x_->activeWindow, 1);
  if (!values || values->empty()) return std::nullopt;
  return values->front();
}

std::vector<std::uint32_t> X11Display::clientWindows() {
  return numbers(x_->root, x_->clientList, kMostWindows).value_or(std::vector<std::uint32_t>());
}

std::optional<int> X11Display::processOfWindow(std::uint32_t window) {
  const auto values = numbers(window, x_->processId, 1);
  if (!values || values->empty()) return std::nullopt;
  return static_cast<int>(values->front());
}

}  // namespace qbv::standin
