// Colours and layers: what a view shows.
#pragma once

#include <memory>
#include <vector>

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/path.h"

namespace qbv {

// Components from 0 to 1, not premultiplied.
struct NSColor {
  double red = 0;
  double green = 0;
  double blue = 0;
  double alpha = 0;
  bool operator==(const NSColor&) const = default;

  static NSColor clearColor() { return {}; }
  static NSColor blackColor() { return {0, 0, 0, 1}; }
  static NSColor whiteColor() { return {1, 1, 1, 1}; }
  static NSColor greenColor() { return {0, 1, 0, 1}; }
  static NSColor yellowColor() { return {1, 1, 0, 1}; }
  static NSColor redColor() { return {1, 0, 0, 1}; }
  NSColor colorWithAlphaComponent(double value) const { return {red, green, blue, value}; }
};

class NSView;

// A rectangle with a background and a border, which may be rounded, and layers above it. A layer of a view
// clips what is above it to its rounded bounds; the border lies on top of that. Main thread only; a change
// shows after the present turn of the main queue.
class QBV_EXPORT CALayer : public std::enable_shared_from_this<CALayer> {
 public:
  CALayer() = default;
  virtual ~CALayer();
  CALayer(const CALayer&) = delete;
  CALayer& operator=(const CALayer&) = delete;

  // In the coordinates of the layer above which it lies.
  NSRect frame() const { return frame_; }
  void setFrame(NSRect frame) { change(frame_, frame); }
  double cornerRadius() const { return cornerRadius_; }
  void setCornerRadius(double radius) { change(cornerRadius_, radius); }
  double borderWidth() const { return borderWidth_; }
  void setBorderWidth(double width) { change(borderWidth_, width); }
  NSColor borderColor() const { return borderColor_; }
  void setBorderColor(NSColor color) { change(borderColor_, color); }
  NSColor backgroundColor() const { return backgroundColor_; }
  void setBackgroundColor(NSColor color) { change(backgroundColor_, color); }

  // Takes the layer from where it was. Null is left alone.
  void addSublayer(const std::shared_ptr<CALayer>& layer);
  void removeFromSuperlayer();
  const std::vector<std::shared_ptr<CALayer>>& sublayers() const { return sublayers_; }
  CALayer* superlayer() const { return superlayer_; }

 protected:
  // Has the window that shows this layer, if any, drawn anew.
  void setNeedsDisplay();
  template <class T>
  void change(T& field, const T& value) {
    if (field == value) return;
    field = value;
    setNeedsDisplay();
  }

 private:
  friend class NSView;

  NSRect frame_;
  double cornerRadius_ = 0;
  double borderWidth_ = 0;
  NSColor borderColor_ = NSColor::blackColor();
  NSColor backgroundColor_;
  std::vector<std::shared_ptr<CALayer>> sublayers_;
  CALayer* superlayer_ = nullptr;
  NSView* view_ = nullptr;  // the view that this is the layer of
};

// A layer with a filled path, in its own coordinates, between its background and its sublayers.
class QBV_EXPORT CAShapeLayer : public CALayer {
 public:
  const CGPathRef& path() const { return path_; }
  void setPath(const CGPathRef& path) { change(path_, path); }
  NSColor fillColor() const { return fillColor_; }
  void setFillColor(NSColor color) { change(fillColor_, color); }

 private:
  CGPathRef path_;
  NSColor fillColor_ = NSColor::blackColor();
};

}  // namespace qbv
