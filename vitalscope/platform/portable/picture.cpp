// Flattens a window's views and layers into what a backend draws.
#include "vitalscope/platform/views.h"

namespace qbv {
namespace {

struct Clip {
  NSRect rect;
  double radius = 0;
};

class PictureBuilder {
 public:
  explicit PictureBuilder(NSSize window) : clip_{{{}, window}, 0} {}

  void addBackground(NSColor color, NSRect frame) {
    add({.kind = PictureItem::Kind::fill, .frame = frame, .color = color});
  }

  void addView(const NSView& view, NSPoint parent) {
    const NSPoint origin{parent.x + view.frame().origin.x, parent.y + view.frame().origin.y};
    const NSRect frame{origin, view.bounds().size};
    const Clip outside = clip_;
    const CALayer* const layer = view.layer().get();
    if (layer != nullptr) {
      addBackground(*layer, frame);
      if (layer->cornerRadius() > 0) clip_ = {frame, layer->cornerRadius()};
      addSublayers(*layer, origin);
    }
    if (const auto* const text = dynamic_cast<const NSTextView*>(&view)) addText(*text, frame);
    for (const auto& subview : view.subviews()) addView(*subview, origin);
    clip_ = outside;
    if (layer != nullptr) addBorder(*layer, frame);
  }

  Picture picture;

 private:
  void add(PictureItem item) {
    if (item.color.alpha <= 0) return;
    item.clip = clip_.rect;
    item.clipRadius = clip_.radius;
    picture.push_back(std::move(item));
  }

  void addBackground(const CALayer& layer, NSRect frame) {
    add({.kind = PictureItem::Kind::fill,
         .frame = frame,
         .color = layer.backgroundColor(),
         .cornerRadius = layer.cornerRadius()});
  }

  void addBorder(const CALayer& layer, NSRect frame) {
    if (layer.borderWidth() > 0)
      add({.kind = PictureItem::Kind::border,
           .frame = frame,
           .color = layer.borderColor(),
           .cornerRadius = layer.cornerRadius(),
           .borderWidth = layer.borderWidth()});
  }

  void addText(const NSTextView& view, NSRect frame) {
    addBackground(view.backgroundColor(), frame);
    if (view.string().empty()) return;
    add({.kind = PictureItem::Kind::text,
         .frame = frame,
         .color = view.textColor(),
         .text = view.string(),
         .fontSize = view.font().pointSize,
         .alignment = view.alignment()});
  }

  void addSublayers(const CALayer& layer, NSPoint parent) {
    for (const auto& above : layer.sublayers()) {
      const NSPoint origin{parent.x + above->frame().origin.x, parent.y + above->frame().origin.y};
      const NSRect frame{origin, above->frame().size};
      addBackground(*above, frame);
      const auto* const shape = dynamic_cast<const CAShapeLayer*>(above.get());
      if (shape != nullptr && shape->path() != nullptr)
        add({.kind = PictureItem::Kind::shape,
             .frame = frame,
             .color = shape->fillColor(),
             .path = shape->path()});
      addSublayers(*above, origin);
      addBorder(*above, frame);
    }
  }

  Clip clip_;
};

}  // namespace

Picture pictureOf(const NSView& contentView, NSColor background) {
  PictureBuilder builder(contentView.bounds().size);
  builder.addBackground(background, contentView.bounds());
  builder.addView(contentView, {});
  return std::move(builder.picture);
}

}  // namespace qbv
