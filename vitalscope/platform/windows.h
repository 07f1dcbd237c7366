// Small windows of our own on the user's screen. The views in them stand in views.h: what a backend gets is a
// picture of plain values.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vitalscope/platform/dispatch.h"
#include "vitalscope/platform/export.h"
#include "vitalscope/platform/layers.h"
#include "vitalscope/platform/path.h"

namespace qbv {

// A panel that does not take the focus from the window that has it.
inline constexpr unsigned NSWindowStyleMaskNonactivatingPanel = 128;

enum class NSBackingStoreType { buffered = 2 };
enum class NSTextAlignment { left, right, center };

// One thing to draw. All of them are clipped to the rounded rectangle `clip`.
struct PictureItem {
  enum class Kind { fill, border, shape, text };
  Kind kind = Kind::fill;
  NSRect frame;  // in points, from the window's bottom left
  NSColor color;
  double cornerRadius = 0;  // of a fill or a border
  double borderWidth = 0;   // inside of the frame
  CGPathRef path{};         // of a shape, in coordinates that begin at the frame's origin
  std::string text{};       // UTF-8, one line
  double fontSize = 0;
  NSTextAlignment alignment = NSTextAlignment::left;
  NSRect clip{};
  double clipRadius = 0;
  bool operator==(const PictureItem&) const = default;
};
using Picture = std::vector<PictureItem>;

struct WindowTraits {
  unsigned styleMask = 0;
  NSBackingStoreType backing = NSBackingStoreType::buffered;
  bool defer = false;
  NSColor backgroundColor = NSColor::whiteColor();
  int level = 0;
  bool movable = true;
  bool movableByWindowBackground = false;
  bool operator==(const WindowTraits&) const = default;
};

struct WindowState {
  NSRect frame;  // in points of the main screen
  WindowTraits traits;
  bool visible = false;
  bool key = false;  // was asked to become the key window when shown
  Picture picture;
};

struct NSEvent {
  enum class Type { leftMouseDown, leftMouseUp };
  Type type = Type::leftMouseDown;
  NSPoint locationInWindow;
};

// Who hears from a window; all on the main thread.
class QBV_EXPORT WindowClient {
 public:
  virtual ~WindowClient() = default;
  // A press that became a drag of the window is never released here.
  virtual void mouseEvent(const NSEvent& event) = 0;
  // The user has dragged the window there.
  virtual void moved(NSPoint origin) = 0;
  // A visible window is gone, or could not be shown.
  virtual void closed() = 0;
};

using WindowNumber = std::uint32_t;

class QBV_EXPORT Windows {
 public:
  virtual ~Windows() = default;

  // Gets ready to show windows (finds the display and the fonts) off the main thread, then runs `then` on the
  // main thread, also when there is no display. When everything is ready and this is the main thread, `then`
  // runs at once; otherwise as a block of the main queue. Any thread.
  virtual void prepare(Block then) = 0;
  // Origin and size of the main screen, its bottom left being 0, 0; empty when there is none. After prepare
  // it is known; without it this waits for the display, a quarter of a second at most. Main thread.
  virtual NSRect mainScreenFrame() = 0;

  // A window, not shown yet. The number is not used again. Main thread, as are the others.
  virtual WindowNumber addWindow(std::weak_ptr<WindowClient> client) = 0;
  // Shows, changes or hides it. The state takes the place of the former one; a backend that is slower than
  // the changes leaves some out. Returns at once.
  virtual void present(WindowNumber window, WindowState state) = 0;
  virtual void removeWindow(WindowNumber window) = 0;
};

}  // namespace qbv
