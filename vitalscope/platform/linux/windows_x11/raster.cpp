#include "vitalscope/platform/linux/windows_x11/raster.h"

#include <algorithm>
#include <cmath>

namespace qbv::x11 {
namespace {

constexpr double kUnitsPerPixel = 64;
// Farther points than this cannot be seen, and would overflow the filler's numbers.
constexpr double kFarthestPixel = 16000;
// Control points of a quarter circle of radius 1.
constexpr double kCircle = 0.5522847498307936;

FT_Pos units(double pixels) {
  return static_cast<FT_Pos>(
      std::lround(std::clamp(pixels, -kFarthestPixel, kFarthestPixel) * kUnitsPerPixel));
}

struct Sink {
  int height;
  const Rasterizer::Span& span;
};

void takeSpans(int y, int count, const FT_Span* spans, void* opaque) {
  const Sink& sink = *static_cast<const Sink*>(opaque);
  for (int i = 0; i < count; ++i)
    if (spans[i].coverage != 0) sink.span(sink.height - 1 - y, spans[i].x, spans[i].len, spans[i].coverage);
}

}  // namespace

void Outline::add(NSPoint point, char tag) {
  raw_.points.push_back({units(point.x), units(point.y)});
  raw_.tags.push_back(tag);
  raw_.contours.back() = static_cast<short>(raw_.points.size() - 1);
}

void Outline::beginContour() {
  raw_.contours.push_back(static_cast<short>(raw_.points.size()));
}

void Outline::moveTo(NSPoint point) {
  beginContour();
  add(point, FT_CURVE_TAG_ON);
}

void Outline::lineTo(NSPoint point) {
  if (raw_.contours.empty()) beginContour();
  add(point, FT_CURVE_TAG_ON);
}

void Outline::curveTo(NSPoint control1, NSPoint control2, NSPoint end) {
  if (raw_.contours.empty()) moveTo(control1);
  add(control1, FT_CURVE_TAG_CUBIC);
  add(control2, FT_CURVE_TAG_CUBIC);
  add(end, FT_CURVE_TAG_ON);
}

void Outline::addRoundedRect(NSRect rect, double radius) {
  const double r = std::clamp(radius, 0.0, std::min(rect.size.width, rect.size.height) / 2);
  const double k = r * kCircle;
  const double left = rect.origin.x;
  const double bottom = rect.origin.y;
  const double right = left + rect.size.width;
  const double top = bottom + rect.size.height;
  moveTo({left + r, bottom});
  lineTo({right - r, bottom});
  if (r > 0) curveTo({right - r + k, bottom}, {right, bottom + r - k}, {right, bottom + r});
  lineTo({right, top - r});
  if (r > 0) curveTo({right, top - r + k}, {right - r + k, top}, {right - r, top});
  lineTo({left + r, top});
  if (r > 0) curveTo({left + r - k, top}, {left, top - r + k}, {left, top - r});
  lineTo({left, bottom + r});
  if (r > 0) curveTo({left, bottom + r - k}, {left + r - k, bottom}, {left + r, bottom});
}

void Outline::addPath(const Path& path, double scale, NSPoint offset) {
  const auto placed = [&](NSPoint point) {
    return NSPoint{point.x * scale + offset.x, point.y * scale + offset.y};
  };
  for (const PathElement& element : path.elements) {
    switch (element.type) {
      case PathElementType::moveTo:
        moveTo(placed(element.points[0]));
        break;
      case PathElementType::lineTo:
        lineTo(placed(element.points[0]));
        break;
      case PathElementType::curveTo:
        curveTo(placed(element.points[0]), placed(element.points[1]), placed(element.points[2]));
        break;
      case PathElementType::closePath:
        break;  // filled outlines are closed
    }
  }
}

void Outline::addGlyph(const FT_Outline& glyph, NSPoint offset) {
  const auto before = raw_.points.size();
  for (int i = 0; i < glyph.n_points; ++i) {
    raw_.points.push_back({glyph.points[i].x + units(offset.x), glyph.points[i].y + units(offset.y)});
    raw_.tags.push_back(glyph.tags[i]);
  }
  for (int i = 0; i < glyph.n_contours; ++i)
    raw_.contours.push_back(static_cast<short>(before + static_cast<std::size_t>(glyph.contours[i])));
}

Rasterizer::Rasterizer() {
  FT_Init_FreeType(&library_);
}

Rasterizer::~Rasterizer() {
  FT_Done_FreeType(library_);
}

void Rasterizer::fill(const Outline& outline, FillRule rule, int width, int height, Rows rows,
                      const Span& span) const {
  const Outline::Raw& raw = outline.raw();
  constexpr std::size_t mostPoints = 32767;
  if (raw.points.empty() || raw.points.size() > mostPoints || rows.empty()) return;
  // The filler reads these and writes none of them.
  FT_Outline shape{};
  shape.n_points = static_cast<short>(raw.points.size());
  shape.n_contours = static_cast<short>(raw.contours.size());
  shape.points = const_cast<FT_Vector*>(raw.points.data());
  shape.tags = const_cast<char*>(raw.tags.data());
  shape.contours = const_cast<short*>(raw.contours.data());
  shape.flags = rule == FillRule::evenOdd ? FT_OUTLINE_EVEN_ODD_FILL : FT_OUTLINE_NONE;
  Sink sink{height, span};
  FT_Raster_Params parameters{};
  parameters.flags = FT_RASTER_FLAG_AA | FT_RASTER_FLAG_DIRECT | FT_RASTER_FLAG_CLIP;
  parameters.gray_spans = takeSpans;
  parameters.user = &sink;
  parameters.clip_box = {0, height - std::min(rows.bottom, height), width, height - std::max(rows.top, 0)};
  FT_Outline_Render(library_, &shape, &parameters);
}

}  // namespace qbv::x11
