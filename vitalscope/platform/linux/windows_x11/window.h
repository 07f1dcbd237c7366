// One window on the display.
#pragma once

#include <optional>

#include "vitalscope/platform/linux/window_module.h"
#include "vitalscope/platform/linux/windows_x11/renderer.h"
#include "vitalscope/platform/linux/windows_x11/screen.h"
#include "vitalscope/platform/linux/windows_x11/xcb.h"

namespace qbv::x11 {

// What all windows of a display share.
struct Desk {
  xcb_connection_t* connection = nullptr;
  const xcb_screen_t* root = nullptr;
  PixelFormat format;
  Screen screen;
  bool composited = false;  // a compositor shows transparency
};

// Borderless and not managed: the window manager neither places it nor gives it the focus, and it does not
// appear in task lists. Where no compositor mixes transparent pixels the window is cut to its picture's
// silhouette and lies on white. The window thread only.
class Window {
 public:
  Window(const Desk& desk, const Rasterizer& rasterizer, const LabelFont& font, WindowNumber number);
  ~Window();
  Window(const Window&) = delete;
  Window& operator=(const Window&) = delete;

  xcb_window_t id() const { return id_; }
  bool visible() const { return visible_; }
  void present(const WindowState& state);
  // Draws the state it has anew, after the desk has changed.
  void redraw();
  // Above the others, if its level is.
  void raise();
  void exposed(int y, int height);
  // Presses, drags and releases of the first button.
  void pressed(const xcb_button_press_event_t& event, linux_backend::DisplayListener& listener);
  void pointerMoved(const xcb_motion_notify_event_t& event);
  void released(const xcb_button_release_event_t& event, linux_backend::DisplayListener& listener);

 private:
  struct Drag {
    int pointerX = 0;  // at the press, in the root window
    int pointerY = 0;
    PixelRect window;  // then
    bool moving = false;
  };

  void create();
  void describe();
  void show();
  void place(PixelRect where);
  void draw();
  void cutOut();
  void send(Rows rows);
  NSPoint locationOf(int x, int y) const;

  const Desk& desk_;
  const WindowNumber number_;
  xcb_window_t id_ = 0;
  xcb_colormap_t colours_ = 0;
  xcb_gcontext_t context_ = 0;
  Renderer renderer_;
  WindowState state_;
  PixelRect pixels_;
  bool visible_ = false;
  bool cutForCompositor_ = false;
  unsigned cutGeometry_ = 0;
  std::optional<Drag> drag_;
};

}  // namespace qbv::x11
