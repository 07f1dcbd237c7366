// The display's main screen and its pixel formats.
#pragma once

#include <optional>

#include "vitalscope/platform/linux/windows_x11/xcb.h"
#include "vitalscope/platform/path.h"

namespace qbv::x11 {

struct PixelRect {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const PixelRect&) const = default;
};

struct Screen {
  PixelRect pixels;  // the monitor that the user calls the main one, in the root window
  double scale = 1;  // pixels per point

  NSRect points() const { return {{0, 0}, {pixels.width / scale, pixels.height / scale}}; }
  // Both ways between points from the main screen's bottom left and pixels of the root window from its top
  // left. Sizes are at least one pixel.
  PixelRect toPixels(NSRect rect) const;
  NSPoint toPoints(PixelRect window) const;
};

// Waits for the display.
Screen readMainScreen(xcb_connection_t* connection, const xcb_screen_t& root);
// Has the display tell when that may be another; the number of the event that says so, 0 for none.
std::uint8_t watchScreenChanges(xcb_connection_t* connection, xcb_window_t root);

struct PixelFormat {
  std::uint8_t depth = 0;
  xcb_visualid_t visual = 0;
};
// A visual whose pixels are 32-bit words 0xAARRGGBB of this machine's byte order, with transparency if there
// is one; nothing when the display has neither.
std::optional<PixelFormat> choosePixelFormat(xcb_connection_t* connection, const xcb_screen_t& root);

}  // namespace qbv::x11
