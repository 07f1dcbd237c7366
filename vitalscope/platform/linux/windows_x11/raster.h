// Outlines filled with smooth edges, on a canvas of pixels.
#pragma once

#include <ft2build.h>
// The header's name is a macro of the one before.
#include FT_FREETYPE_H
#include FT_OUTLINE_H

#include <cstdint>
#include <functional>
#include <vector>

#include "vitalscope/platform/path.h"

namespace qbv::x11 {

// Pixel rows, top to bottom.
struct Rows {
  int top = 0;
  int bottom = 0;  // first one that does not belong to it
  bool empty() const { return bottom <= top; }
  bool operator==(const Rows&) const = default;
};

// Points on the canvas in pixels; the origin is at the bottom left, y grows upwards.
class Outline {
 public:
  void moveTo(NSPoint point);
  void lineTo(NSPoint point);
  void curveTo(NSPoint control1, NSPoint control2, NSPoint end);
  // A rectangle whose corners are rounded, by half of the shorter side at most.
  void addRoundedRect(NSRect rect, double radius);
  // Elements scaled and then moved.
  void addPath(const Path& path, double scale, NSPoint offset);
  // In 26.6 units of the canvas, moved by that many pixels.
  void addGlyph(const FT_Outline& glyph, NSPoint offset);

  struct Raw {
    std::vector<FT_Vector> points;
    std::vector<char> tags;
    std::vector<short> contours;
  };
  const Raw& raw() const { return raw_; }

 private:
  void beginContour();
  void add(NSPoint point, char tag);
  Raw raw_;
};

enum class FillRule { nonZero, evenOdd };

// One thread.
class Rasterizer {
 public:
  Rasterizer();
  ~Rasterizer();
  Rasterizer(const Rasterizer&) = delete;
  Rasterizer& operator=(const Rasterizer&) = delete;

  FT_Library library() const { return library_; }

  // Gets the covered part of a row: first pixel, number of pixels, coverage from 1 to 255.
  using Span = std::function<void(int row, int x, int length, int coverage)>;
  // Fills what lies in the rows of a canvas of that size.
  void fill(const Outline& outline, FillRule rule, int width, int height, Rows rows, const Span& span) const;

 private:
  FT_Library library_ = nullptr;
};

}  // namespace qbv::x11
