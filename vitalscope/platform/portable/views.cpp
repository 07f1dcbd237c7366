#include "vitalscope/platform/views.h"

#include <algorithm>
#include <utility>

namespace qbv {

NSView::~NSView() {
  if (layer_ != nullptr) layer_->view_ = nullptr;
  for (const auto& view : subviews_) view->superview_ = nullptr;
}

void NSView::setFrame(NSRect frame) {
  frame_ = frame;
  if (layer_ != nullptr) layer_->setFrame(frame);
  setNeedsDisplay();
}

void NSView::setWantsLayer(bool wants) {
  if (!wants || layer_ != nullptr) return;
  layer_ = std::make_shared<CALayer>();
  layer_->view_ = this;
  layer_->setFrame(frame_);
}

void NSView::addSubview(const std::shared_ptr<NSView>& view) {
  if (view == nullptr) return;
  view->removeFromSuperview();
  view->superview_ = this;
  subviews_.push_back(view);
  setNeedsDisplay();
  if (window() != nullptr) view->movedToWindow();
}

void NSView::removeFromSuperview() {
  if (superview_ == nullptr) return;
  setNeedsDisplay();
  const std::shared_ptr<NSView> self = shared_from_this();
  std::erase(std::exchange(superview_, nullptr)->subviews_, self);
}

void NSView::movedToWindow() {
  updateTrackingAreas();
  for (const auto& view : subviews_) view->movedToWindow();
}

NSWindow* NSView::window() const {
  const NSView* top = this;
  while (top->superview_ != nullptr) top = top->superview_;
  return top->window_;
}

void NSView::setNeedsDisplay() {
  if (NSWindow* const shown = window()) shown->setNeedsDisplay();
}

void NSView::mouseDown(const NSEvent& event) {
  if (superview_ != nullptr) superview_->mouseDown(event);
}

void NSView::mouseUp(const NSEvent& event) {
  if (superview_ != nullptr) superview_->mouseUp(event);
}

NSView* NSView::hitTest(NSPoint point) {
  if (!frame_.contains(point)) return nullptr;
  const NSPoint inside{point.x - frame_.origin.x, point.y - frame_.origin.y};
  for (auto view = subviews_.rbegin(); view != subviews_.rend(); ++view)
    if (NSView* const hit = (*view)->hitTest(inside)) return hit;
  return this;
}

}  // namespace qbv
