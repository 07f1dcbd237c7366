#include <utility>

#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/views.h"

namespace qbv {

std::shared_ptr<NSWindow> NSWindow::make(NSRect contentRect, unsigned styleMask, NSBackingStoreType backing,
                                         bool defer) {
  const std::shared_ptr<NSWindow> window(new NSWindow);
  window->state_.frame = contentRect;
  window->state_.traits.styleMask = styleMask;
  window->state_.traits.backing = backing;
  window->state_.traits.defer = defer;
  window->contentView_ = std::make_shared<NSView>(NSRect{{}, contentRect.size});
  window->contentView_->window_ = window.get();
  window->number_ = platform().windows.addWindow(window);
  return window;
}

NSWindow::~NSWindow() {
  contentView_->window_ = nullptr;
  platform().windows.removeWindow(number_);
}

void NSWindow::setBackgroundColor(NSColor color) {
  state_.traits.backgroundColor = color;
  setNeedsDisplay();
}

void NSWindow::setLevel(int level) {
  state_.traits.level = level;
  setNeedsDisplay();
}

void NSWindow::setMovable(bool movable) {
  state_.traits.movable = movable;
  setNeedsDisplay();
}

void NSWindow::setMovableByWindowBackground(bool movable) {
  state_.traits.movableByWindowBackground = movable;
  setNeedsDisplay();
}

void NSWindow::makeKeyAndOrderFront() {
  state_.visible = true;
  state_.key = true;
  scheduleUpdate();
}

void NSWindow::setIsVisible(bool visible) {
  if (state_.visible == visible) return;
  state_.visible = visible;
  state_.key = state_.key && visible;
  scheduleUpdate();
}

void NSWindow::setNeedsDisplay() {
  if (state_.visible) scheduleUpdate();
}

void NSWindow::scheduleUpdate() {
  if (std::exchange(updatePending_, true)) return;
  Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [weak = weak_from_this()] {
    if (const auto window = weak.lock()) window->update();
  });
}

void NSWindow::update() {
  updatePending_ = false;
  WindowState now = state_;
  if (now.visible) now.picture = pictureOf(*contentView_, now.traits.backgroundColor);
  platform().windows.present(number_, std::move(now));
}

void NSWindow::mouseEvent(const NSEvent& event) {
  if (event.type == NSEvent::Type::leftMouseDown) {
    NSView* const hit = contentView_->hitTest(event.locationInWindow);
    pressedView_ = hit != nullptr ? hit->weak_from_this() : std::weak_ptr<NSView>();
    if (hit != nullptr) hit->mouseDown(event);
  } else if (const auto view = std::exchange(pressedView_, {}).lock()) {
    view->mouseUp(event);
  }
}

void NSWindow::moved(NSPoint origin) {
  state_.frame.origin = origin;
}

void NSWindow::closed() {
  if (!state_.visible) return;
  state_.visible = state_.key = false;
  if (const auto delegate = delegate_.lock()) delegate->windowWillClose(*this);
}

}  // namespace qbv
