// A connection to an X display, and what window managers note on its root window.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace qbv::standin {

// One thread at a time. The client library is opened when the first connection is made and stays open.
class X11Display {
 public:
  // Null when there is no client library or the display cannot be reached.
  static std::unique_ptr<X11Display> connect(const char* name);
  ~X11Display();
  X11Display(const X11Display&) = delete;
  X11Display& operator=(const X11Display&) = delete;

  // From here on waitForChange() hears of the root window's properties. False when the display is lost.
  bool watchRoot();
  // Sleeps until what the functions below answer may have changed. False when the display is lost.
  bool waitForChange();
  bool lost() const;

  // _NET_ACTIVE_WINDOW: nothing when no window manager keeps it, 0 when no window is active.
  std::optional<std::uint32_t> activeWindow();
  // _NET_CLIENT_LIST.
  std::vector<std::uint32_t> clientWindows();
  // _NET_WM_PID of a window; nothing when it has none or is gone.
  std::optional<int> processOfWindow(std::uint32_t window);

 private:
  struct Connection;
  explicit X11Display(std::unique_ptr<Connection> connection);
  std::optional<std::vector<std::uint32_t>> numbers(std::uint32_t window, std::uint32_t property,
                                                    std::uint32_t most);

  const std::unique_ptr<Connection> x_;
};

}  // namespace qbv::standin
