// Which rows of a window a new picture changes.
#pragma once

#include <vector>

#include "vitalscope/platform/linux/windows_x11/raster.h"
#include "vitalscope/platform/windows.h"

namespace qbv::x11 {

// How points become pixels.
struct Canvas {
  int width = 0;
  int height = 0;
  double scale = 1;
  bool operator==(const Canvas&) const = default;
};

// Rows that hold any part of the points from `bottom` to `top`, y upwards.
Rows rowsBetween(const Canvas& canvas, double bottom, double top);

// Rows in which two paths cover different places, both at `origin`. Wherever the borders of two paths of as
// many elements differ only along a common line, nothing is between them: so a wave under a flat top changes
// its crest alone.
Rows changedRows(const Canvas& canvas, NSPoint origin, const Path& before, const Path& after);

// In ascending order, none touching another.
std::vector<Rows> changedRows(const Canvas& canvas, const Picture& before, const Picture& after);

}  // namespace qbv::x11
