// The events of GTK 3 on their way through the application object.
#pragma once

#include <atomic>

namespace qbv::linux_backend {

// GTK hands GDK one function that gets every event (gdk_event_handler_set), and a host may put its own in
// that place. Nobody can be asked which one is there; but GTK's own is an exported function, and its address
// stands among GDK's variables exactly while it is GDK's handler. Only then is it replaced by one that sends
// the event through "sendEvent:" and so to GTK's. A host's handler stays, with its data; one that a host sets
// afterwards takes our place and nothing is seen any more.
//
// Until GTK is loaded and initialised, each pass of GLib's loop on the main thread is an occasion to look, at
// most once a second. Any thread; never waits.
void routeGtkEvents();

namespace detail {
inline constinit std::atomic<bool> gtkEventsAwaited{false};
void lookForGtkEvents();
}  // namespace detail

// Main thread, between the poll of a pass and its dispatches. One load when there is nothing to look for.
inline void lookForGtkEvents() {
  if (detail::gtkEventsAwaited.load(std::memory_order_relaxed)) detail::lookForGtkEvents();
}

}  // namespace qbv::linux_backend
