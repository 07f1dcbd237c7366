#include "vitalscope/platform/linux/windows_x11/damage.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

namespace qbv::x11 {
namespace {

struct Extent {
  double bottom = std::numeric_limits<double>::infinity();
  double top = -std::numeric_limits<double>::infinity();
  void include(double y) {
    bottom = std::min(bottom, y);
    top = std::max(top, y);
  }
  bool empty() const { return bottom > top; }
};

// Corners of a path that is one polygon of straight lines; nothing for others.
std::optional<std::vector<NSPoint>> polygon(const Path& path) {
  std::vector<NSPoint> corners;
  corners.reserve(path.elements.size());
  for (const PathElement& element : path.elements) {
    const bool moves = element.type == PathElementType::moveTo;
    if (element.type == PathElementType::curveTo || moves != corners.empty()) return std::nullopt;
    if (element.type != PathElementType::closePath) corners.push_back(element.points[0]);
  }
  return corners;
}

bool onOneVertical(const std::array<NSPoint, 4>& points) {
  return std::all_of(points.begin(), points.end(), [&](NSPoint point) { return point.x == points[0].x; });
}

bool onOneHorizontal(const std::array<NSPoint, 4>& points) {
  return std::all_of(points.begin(), points.end(), [&](NSPoint point) { return point.y == points[0].y; });
}

Extent extent(const Path& path) {
  static constexpr std::size_t pointCounts[] = {1, 1, 3, 0};
  Extent result;
  for (const PathElement& element : path.elements)
    for (std::size_t i = 0; i < pointCounts[static_cast<std::size_t>(element.type)]; ++i)
      result.include(element.points[i].y);
  return result;
}

// The area between each edge of one polygon and its counterpart of the other.
Extent extentBetween(const std::vector<NSPoint>& before, const std::vector<NSPoint>& after) {
  Extent result;
  for (std::size_t i = 0; i < before.size(); ++i) {
    const std::size_t next = (i + 1) % before.size();
    if (before[i] == after[i] && before[next] == after[next]) continue;
    const std::array<NSPoint, 4> corners = {before[i], before[next], after[next], after[i]};
    if (onOneVertical(corners) || onOneHorizontal(corners)) continue;
    for (const NSPoint corner : corners) result.include(corner.y);
  }
  return result;
}

Rows frameRows(const Canvas& canvas, NSRect frame) {
  return rowsBetween(canvas, frame.origin.y, frame.origin.y + frame.size.height);
}

void addItemRows(const Canvas& canvas, const PictureItem& before, const PictureItem& after,
                 std::vector<Rows>& changed) {
  if (before == after) return;
  PictureItem samePath = after;
  samePath.path = before.path;
  if (before.path != nullptr && after.path != nullptr && before == samePath) {
    changed.push_back(changedRows(canvas, after.frame.origin, *before.path, *after.path));
    return;
  }
  changed.push_back(frameRows(canvas, before.frame));
  changed.push_back(frameRows(canvas, after.frame));
}

std::vector<Rows> joined(std::vector<Rows> rows) {
  std::erase_if(rows, [](Rows range) { return range.empty(); });
  std::sort(rows.begin(), rows.end(), [](Rows a, Rows b) { return a.top < b.top; });
  std::vector<Rows> result;
  for (const Rows range : rows) {
    if (!result.empty() && range.top <= result.back().bottom)
      result.back().bottom = std::max(result.back().bottom, range.bottom);
    else
      result.push_back(range);
  }
  return result;
}

}  // namespace

Rows rowsBetween(const Canvas& canvas, double bottom, double top) {
  const int first = canvas.height - static_cast<int>(std::ceil(top * canvas.scale));
  const int end = canvas.height - static_cast<int>(std::floor(bottom * canvas.scale));
  return {std::clamp(first, 0, canvas.height), std::clamp(end, 0, canvas.height)};
}

Rows changedRows(const Canvas& canvas, NSPoint origin, const Path& before, const Path& after) {
  Extent changed;
  const auto corners = polygon(before);
  const auto newCorners = polygon(after);
  if (corners && newCorners && corners->size() == newCorners->size()) {
    changed = extentBetween(*corners, *newCorners);
  } else {
    for (const Extent& one : {extent(before), extent(after)}) {
      if (one.empty()) continue;
      changed.include(one.bottom);
      changed.include(one.top);
    }
  }
  if (changed.empty()) return {};
  return rowsBetween(canvas, origin.y + changed.bottom, origin.y + changed.top);
}

std::vector<Rows> changedRows(const Canvas& canvas, const Picture& before, const Picture& after) {
  std::vector<Rows> changed;
  if (before.size() != after.size()) return {{0, canvas.height}};
  for (std::size_t i = 0; i < after.size(); ++i) addItemRows(canvas, before[i], after[i], changed);
  return joined(std::move(changed));
}

}  // namespace qbv::x11
