// Turns a path under construction into what a shape layer takes.
#pragma once

#include "vitalscope/platform/path.h"

namespace qbv {

// The same elements in the same order; null for a path without elements. Any thread.
QBV_EXPORT CGPathRef CGPath(const NSBezierPath& path);

}  // namespace qbv
