#include "vitalscope/platform/linux/windows_x11/display.h"

#include <algorithm>
#include <utility>

namespace qbv::x11 {
namespace {

constexpr std::uint8_t kSentByClient = 0x80;
// How long a compositor that came or went may go unnoticed.
constexpr std::chrono::seconds kLookInterval{1};

const xcb_screen_t* screenOf(xcb_connection_t* connection, int number) {
  xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
  for (; number > 0 && screens.rem > 1; --number) xcb_screen_next(&screens);
  return screens.rem > 0 ? screens.data : nullptr;
}

}  // namespace

std::unique_ptr<Display> Display::open() {
  int number = 0;
  Connection connection(xcb_connect(nullptr, &number));
  if (xcb_connection_has_error(connection.get()) != 0) return nullptr;
  Desk desk;
  desk.connection = connection.get();
  desk.root = screenOf(connection.get(), number);
  if (desk.root == nullptr) return nullptr;
  const auto format = choosePixelFormat(connection.get(), *desk.root);
  if (!format) return nullptr;
  desk.format = *format;
  desk.screen = readMainScreen(connection.get(), *desk.root);
  std::unique_ptr<Display> display(new Display(std::move(connection), desk));
  display->compositor_ = atom(desk.connection, ("_NET_WM_CM_S" + std::to_string(number)).c_str());
  return display;
}

Display::Display(Connection connection, Desk desk)
    : connection_(std::move(connection)), desk_(desk), root_(desk.root->root) {
  activeWindow_ = atom(desk_.connection, "_NET_ACTIVE_WINDOW");
  stacking_ = atom(desk_.connection, "_NET_CLIENT_LIST_STACKING");
  windowState_ = atom(desk_.connection, "_NET_WM_STATE");
  fullScreen_ = atom(desk_.connection, "_NET_WM_STATE_FULLSCREEN");
  screenChange_ = watchScreenChanges(desk_.connection, root_);
  const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
  xcb_change_window_attributes(desk_.connection, root_, XCB_CW_EVENT_MASK, &events);
}

void Display::present(WindowNumber number, const WindowState& state) {
  if (!state.visible && !windows_.contains(number)) return;
  const auto now = std::chrono::steady_clock::now();
  if (state.visible && now - lastLook_ > kLookInterval) look(now);
  const auto [place, made] = windows_.try_emplace(number, desk_, rasterizer_, font_, number);
  place->second.present(state);
}

// Whether a compositor runs is told by who owns a selection.
void Display::look(std::chrono::steady_clock::time_point now) {
  lastLook_ = now;
  const Owned<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
      desk_.connection, xcb_get_selection_owner(desk_.connection, compositor_), nullptr));
  desk_.composited = owner != nullptr && owner->owner != XCB_NONE;
}

bool Display::handleEvents(linux_backend::DisplayListener& listener, bool arrived) {
  using Event = Owned<xcb_generic_event_t>;
  const auto nextInQueue = [&] { return Event(xcb_poll_for_queued_event(desk_.connection)); };
  Event event = arrived ? Event(xcb_poll_for_event(desk_.connection)) : nextInQueue();
  do {
    for (; event != nullptr; event = nextInQueue()) handle(*event, listener);
    raiseAgain();
    xcb_flush(desk_.connection);
    event = nextInQueue();  // what was read while sending
  } while (event != nullptr);
  return xcb_connection_has_error(desk_.connection) == 0;
}

void Display::raiseAgain() {
  if (!std::exchange(othersRaised_, false) || fullScreenWindowIsActive()) return;
  for (auto& [number, window] : windows_)
    if (window.visible()) window.raise();
}

void Display::handle(const xcb_generic_event_t& event, linux_backend::DisplayListener& listener) {
  const std::uint8_t type = event.response_type & static_cast<std::uint8_t>(~kSentByClient);
  const auto with = [&](xcb_window_t id, auto act) {
    if (auto* const found = find(id)) act(found->second);
  };
  if (type == XCB_EXPOSE) {
    const auto& expose = reinterpret_cast<const xcb_expose_event_t&>(event);
    with(expose.window, [&](Window& window) { window.exposed(expose.y, expose.height); });
  } else if (type == XCB_BUTTON_PRESS) {
    const auto& press = reinterpret_cast<const xcb_button_press_event_t&>(event);
    with(press.event, [&](Window& window) { window.pressed(press, listener); });
  } else if (type == XCB_MOTION_NOTIFY) {
    const auto& motion = reinterpret_cast<const xcb_motion_notify_event_t&>(event);
    with(motion.event, [&](Window& window) { window.pointerMoved(motion); });
  } else if (type == XCB_BUTTON_RELEASE) {
    const auto& release = reinterpret_cast<const xcb_button_release_event_t&>(event);
    with(release.event, [&](Window& window) { window.released(release, listener); });
  } else if (type == XCB_PROPERTY_NOTIFY) {
    const xcb_atom_t changed = reinterpret_cast<const xcb_property_notify_event_t&>(event).atom;
    othersRaised_ = othersRaised_ || changed == activeWindow_ || changed == stacking_;
  } else if (screenChange_ != 0 && type == screenChange_) {
    desk_.screen = readMainScreen(desk_.connection, *desk_.root);
    listener.screenChanged(desk_.screen.points());
    for (auto& [number, window] : windows_) window.redraw();
  }
}

bool Display::fullScreenWindowIsActive() const {
  const auto active = wordsOf(desk_.connection, root_, activeWindow_, 1);
  if (active.empty() || active.front() == XCB_NONE) return false;
  const auto states = wordsOf(desk_.connection, active.front(), windowState_, 64);
  return std::find(states.begin(), states.end(), fullScreen_) != states.end();
}

std::pair<const WindowNumber, Window>* Display::find(xcb_window_t id) {
  const auto found = std::find_if(windows_.begin(), windows_.end(),
                                  [&](const auto& entry) { return entry.second.id() == id; });
  return found != windows_.end() ? &*found : nullptr;
}

}  // namespace qbv::x11
