// Whether the application is the one in front.
#pragma once

#include <functional>
#include <optional>

namespace qbv::standin {

// What a look at the display says.
struct ActivityFacts {
  bool windowManager = false;             // one that says which window is active
  std::optional<int> activeProcess = {};  // whose window that is
  bool waylandSession = false;            // windows that this display knows nothing of may be in front
  bool ownsWindow = false;  // this process has a window on this display; asked in Wayland sessions only
};

// Without a window manager that could tell, and for a process whose windows are elsewhere, the answer is yes:
// it is better to watch too much than nothing.
bool isActive(const ActivityFacts& facts, int processId) noexcept;

// Who said so.
inline constexpr char kByWindowManager[] = "window manager";
inline constexpr char kAlways[] = "always";
using ActivityReport = std::function<void(bool active, const char* source)>;

// Tells whether this process's application is in front, now and whenever that changes; never stops. With
// $DISPLAY set this is done on a thread of its own, "quib activity", with a connection of its own; a display
// that cannot be reached or is lost means active for ever. Otherwise reports active once, before it returns.
// Once per process.
void startActivityWatch(ActivityReport report);

// What that thread does. Reports changes only. Returns when the display cannot be reached or is lost, having
// reported active.
void watchActivity(const char* display, int processId, bool waylandSession, const ActivityReport& report);

}  // namespace qbv::standin
