#include "vitalscope/dashboard/NSBezierPath_CGPath.h"

namespace qbv {

CGPathRef CGPath(const NSBezierPath& path) {
  if (path.elementCount() == 0) return nullptr;
  const auto converted = std::make_shared<Path>();
  converted->elements.reserve(path.elementCount());
  for (std::size_t index = 0; index < path.elementCount(); ++index) {
    PathElement element;
    element.type = path.elementAtIndex(index, element.points.data());
    converted->elements.push_back(element);
  }
  return converted;
}

}  // namespace qbv
