// Windows and the views in them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/layers.h"
#include "vitalscope/platform/windows.h"

namespace qbv {

class NSWindow;

// 17: mouse entered and exited, active while the owner is first responder.
inline constexpr unsigned NSTrackingMouseEnteredAndExited = 1;
inline constexpr unsigned NSTrackingActiveWhenFirstResponder = 16;

struct NSTrackingArea {
  NSRect rect;
  unsigned options = 0;
  std::weak_ptr<NSView> owner;
};

// Everything here: main thread only. A change shows after the present turn of the main queue.
class QBV_EXPORT NSView : public std::enable_shared_from_this<NSView> {
 public:
  explicit NSView(NSRect frame) : frame_(frame) {}  // initWithFrame:
  virtual ~NSView();
  NSView(const NSView&) = delete;
  NSView& operator=(const NSView&) = delete;

  // In the superview's coordinates; bounds is the same size at 0, 0.
  NSRect frame() const { return frame_; }
  void setFrame(NSRect frame);
  NSRect bounds() const { return {{}, frame_.size}; }

  // With a layer the view can have a background, a border and round corners. Once there it stays.
  void setWantsLayer(bool wants);
  const std::shared_ptr<CALayer>& layer() const { return layer_; }

  // In the order of adding, the last on top. Adding takes the view from where it was.
  void addSubview(const std::shared_ptr<NSView>& view);
  void removeFromSuperview();
  const std::vector<std::shared_ptr<NSView>>& subviews() const { return subviews_; }
  NSView* superview() const { return superview_; }
  NSWindow* window() const;

  // What the view does with a press and its release; otherwise its superview is asked.
  virtual void mouseDown(const NSEvent& event);
  virtual void mouseUp(const NSEvent& event);
  // The view that is pressed at a point of this view's superview; null when it lies outside.
  NSView* hitTest(NSPoint point);

  // Called whenever the view has come into a window.
  virtual void updateTrackingAreas() {}
  void addTrackingArea(NSTrackingArea area) { trackingAreas_.push_back(std::move(area)); }
  const std::vector<NSTrackingArea>& trackingAreas() const { return trackingAreas_; }

  void setNeedsDisplay();

 private:
  friend class NSWindow;
  void movedToWindow();

  NSRect frame_;
  std::shared_ptr<CALayer> layer_;
  std::vector<std::shared_ptr<NSView>> subviews_;
  std::vector<NSTrackingArea> trackingAreas_;
  NSView* superview_ = nullptr;
  NSWindow* window_ = nullptr;  // of a content view
};

struct NSFont {
  double pointSize = 0;
  bool operator==(const NSFont&) const = default;
  // The system's font for labels.
  static NSFont labelFontOfSize(double size) { return {size}; }
};

// One line of text.
class QBV_EXPORT NSTextView : public NSView {
 public:
  using NSView::NSView;

  const std::string& string() const { return string_; }
  void setString(const std::string& text) { change(string_, text); }
  NSTextAlignment alignment() const { return alignment_; }
  void setAlignment(NSTextAlignment alignment) { change(alignment_, alignment); }
  NSColor backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(NSColor color) { change(backgroundColor_, color); }
  NSColor textColor() const { return textColor_; }
  void setTextColor(NSColor color) { change(textColor_, color); }
  NSFont font() const { return font_; }
  void setFont(NSFont font) { change(font_, font); }
  // Neither is offered by any backend so far: the view takes no keys.
  bool isEditable() const { return editable_; }
  void setEditable(bool editable) { editable_ = editable; }
  bool isSelectable() const { return selectable_; }
  void setSelectable(bool selectable) { selectable_ = selectable; }

 private:
  template <class T>
  void change(T& field, const T& value) {
    if (field == value) return;
    field = value;
    setNeedsDisplay();
  }

  std::string string_;
  NSTextAlignment alignment_ = NSTextAlignment::left;
  NSColor backgroundColor_ = NSColor::whiteColor();
  NSColor textColor_ = NSColor::blackColor();
  NSFont font_{12};
  bool editable_ = true;
  bool selectable_ = true;
};

// What a window tells its owner, on the main thread.
class QBV_EXPORT NSWindowDelegate {
 public:
  virtual ~NSWindowDelegate() = default;
  // A window that was shown is not there any more, or could not be shown: there is no display, or its
  // connection was lost. Showing it again tries again.
  virtual void windowWillClose(NSWindow& window) = 0;
};

// Main thread only. Hidden at first. Owned by a shared pointer, see make().
class QBV_EXPORT NSWindow : public WindowClient, public std::enable_shared_from_this<NSWindow> {
 public:
  // initWithContentRect:styleMask:backing:defer:, the rectangle in points of the main screen.
  static std::shared_ptr<NSWindow> make(NSRect contentRect, unsigned styleMask, NSBackingStoreType backing,
                                        bool defer);
  ~NSWindow() override;
  NSWindow(const NSWindow&) = delete;
  NSWindow& operator=(const NSWindow&) = delete;

  const WindowTraits& traits() const { return state_.traits; }
  void setBackgroundColor(NSColor color);
  void setLevel(int level);
  void setMovable(bool movable);
  // The user moves the window by dragging any place of it.
  void setMovableByWindowBackground(bool movable);
  void setDelegate(std::weak_ptr<NSWindowDelegate> delegate) { delegate_ = std::move(delegate); }

  // Shows the window in front of others; one with the style NSWindowStyleMaskNonactivatingPanel does not take
  // the focus from whatever has it.
  void makeKeyAndOrderFront();
  void setIsVisible(bool visible);
  bool isVisible() const { return state_.visible; }
  // Follows the user's dragging.
  NSRect frame() const { return state_.frame; }
  const std::shared_ptr<NSView>& contentView() const { return contentView_; }

  // Has the picture made anew and handed over once in a later turn of the main queue, however often it is
  // asked for until then.
  void setNeedsDisplay();

  // From the backend.
  void mouseEvent(const NSEvent& event) override;
  void moved(NSPoint origin) override;
  void closed() override;

 private:
  NSWindow() = default;
  void scheduleUpdate();
  void update();

  WindowState state_;
  WindowNumber number_ = 0;
  std::shared_ptr<NSView> contentView_;
  std::weak_ptr<NSView> pressedView_;
  std::weak_ptr<NSWindowDelegate> delegate_;
  bool updatePending_ = false;
};

// What a window with this background shows, bottom to top.
QBV_EXPORT Picture pictureOf(const NSView& contentView, NSColor background);

}  // namespace qbv
