// What the platform library finds in this module.
#include "vitalscope/platform/linux/windows_x11/display.h"

extern "C" [[gnu::visibility("default")]] qbv::linux_backend::WindowDisplay* qbv_open_display() {
  return qbv::x11::Display::open().release();
}
