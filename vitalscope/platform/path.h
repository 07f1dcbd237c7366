// Points, rectangles and paths. Units are points; the origin is at the bottom left, y grows upwards.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

#include "vitalscope/platform/export.h"

namespace qbv {

struct NSPoint {
  double x = 0;
  double y = 0;
  bool operator==(const NSPoint&) const = default;
};

struct NSSize {
  double width = 0;
  double height = 0;
  bool operator==(const NSSize&) const = default;
};

struct NSRect {
  NSPoint origin;
  NSSize size;
  bool operator==(const NSRect&) const = default;
  bool contains(NSPoint point) const {
    return point.x >= origin.x && point.x < origin.x + size.width && point.y >= origin.y &&
           point.y < origin.y + size.height;
  }
};

enum class PathElementType { moveTo, lineTo, curveTo, closePath };

// A move or a line uses points[0], a curve its two control points and then its end point, a close none.
struct PathElement {
  PathElementType type = PathElementType::moveTo;
  std::array<NSPoint, 3> points{};
  bool operator==(const PathElement&) const = default;
};

// What a shape layer takes: the elements of a path that no longer changes.
struct Path {
  std::vector<PathElement> elements;
  bool operator==(const Path&) const = default;
};
using CGPathRef = std::shared_ptr<const Path>;

// A path under construction. One thread at a time.
class QBV_EXPORT NSBezierPath {
 public:
  void moveToPoint(NSPoint point) { add(PathElementType::moveTo, {point}); }
  void lineToPoint(NSPoint point) { add(PathElementType::lineTo, {point}); }
  void curveToPoint(NSPoint end, NSPoint controlPoint1, NSPoint controlPoint2) {
    add(PathElementType::curveTo, {controlPoint1, controlPoint2, end});
  }
  void closePath() { add(PathElementType::closePath, {}); }

  std::size_t elementCount() const { return elements_.size(); }
  // The element's type; as many points as it has are written to associatedPoints, which has room for three.
  PathElementType elementAtIndex(std::size_t index, NSPoint* associatedPoints) const;

 private:
  void add(PathElementType type, std::array<NSPoint, 3> points) { elements_.push_back({type, points}); }

  std::vector<PathElement> elements_;
};

}  // namespace qbv
