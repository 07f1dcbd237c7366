// The seam between the platform library and the module that knows a display system. The module is a shared
// object of its own, opened when a window is first wanted: a host that shows none maps no display library.
#pragma once

#include <memory>
#include <string>

#include "vitalscope/platform/windows.h"

namespace qbv::linux_backend {

// What the display tells; called on the window thread.
class DisplayListener {
 public:
  virtual ~DisplayListener() = default;
  virtual void mouseEvent(WindowNumber window, const NSEvent& event) = 0;
  virtual void windowMoved(WindowNumber window, NSPoint origin) = 0;
  virtual void screenChanged(NSRect mainScreen) = 0;
};

// A connection to a display. The window thread only; it may wait for the display.
class WindowDisplay {
 public:
  virtual ~WindowDisplay() = default;
  // Readable when something has arrived, as long as handleEvents was called since anything else was.
  virtual int descriptor() = 0;
  // In points; the bottom left is 0, 0.
  virtual NSRect mainScreen() = 0;
  // Makes the window if it is a new one.
  virtual void present(WindowNumber window, const WindowState& state) = 0;
  virtual void remove(WindowNumber window) = 0;
  // Sends what waits to be sent, and tells what has happened. `arrived`: the descriptor was found readable.
  // False when the connection is lost.
  virtual bool handleEvents(DisplayListener& listener, bool arrived) = 0;
};

// What the module exports: a connection to the user's display, or null.
inline constexpr char kOpenDisplayName[] = "qbv_open_display";
using OpenDisplay = WindowDisplay*();

// Loads the module when it is first called. Null when it is missing, or when there is no display; `failure`
// says which. Not on the main thread: a few milliseconds, or as long as the display takes to answer.
std::unique_ptr<WindowDisplay> openDisplay(std::string& failure);

}  // namespace qbv::linux_backend
