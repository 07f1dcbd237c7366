// A connection to an X display.
#pragma once

#include <chrono>
#include <map>
#include <memory>

#include "vitalscope/platform/linux/window_module.h"
#include "vitalscope/platform/linux/windows_x11/label_font.h"
#include "vitalscope/platform/linux/windows_x11/raster.h"
#include "vitalscope/platform/linux/windows_x11/screen.h"
#include "vitalscope/platform/linux/windows_x11/window.h"

namespace qbv::x11 {

class Display final : public linux_backend::WindowDisplay {
 public:
  // To the display that the environment names; null when it cannot be reached or has no usable pixels.
  static std::unique_ptr<Display> open();

  int descriptor() override { return xcb_get_file_descriptor(desk_.connection); }
  NSRect mainScreen() override { return desk_.screen.points(); }
  void present(WindowNumber number, const WindowState& state) override;
  void remove(WindowNumber number) override { windows_.erase(number); }
  bool handleEvents(linux_backend::DisplayListener& listener, bool arrived) override;

 private:
  Display(Connection connection, Desk desk);

  void handle(const xcb_generic_event_t& event, linux_backend::DisplayListener& listener);
  void raiseAgain();
  void look(std::chrono::steady_clock::time_point now);
  bool fullScreenWindowIsActive() const;
  std::pair<const WindowNumber, Window>* find(xcb_window_t window);

  const Connection connection_;
  Desk desk_;
  xcb_window_t root_ = 0;
  xcb_atom_t compositor_ = 0;
  xcb_atom_t activeWindow_ = 0;
  xcb_atom_t stacking_ = 0;
  xcb_atom_t windowState_ = 0;
  xcb_atom_t fullScreen_ = 0;
  std::uint8_t screenChange_ = 0;
  bool othersRaised_ = false;
  std::chrono::steady_clock::time_point lastLook_{};
  Rasterizer rasterizer_;
  LabelFont font_{rasterizer_};
  std::map<WindowNumber, Window> windows_;
};

}  // namespace qbv::x11
