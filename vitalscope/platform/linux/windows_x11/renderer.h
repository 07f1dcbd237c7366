// Pictures into pixels, of which only the changed ones are made anew.
#pragma once

#include <cstdint>
#include <vector>

#include "vitalscope/platform/linux/windows_x11/damage.h"
#include "vitalscope/platform/linux/windows_x11/label_font.h"
#include "vitalscope/platform/linux/windows_x11/raster.h"

namespace qbv::x11 {

// Pixels of one row, from `left` on.
struct PixelRun {
  int row = 0;
  int left = 0;
  int width = 0;
};

// One window's image. One thread; the rasterizer and the font outlive it.
class Renderer {
 public:
  Renderer(const Rasterizer& rasterizer, const LabelFont& font) : rasterizer_(rasterizer), font_(font) {}

  // Brings the image up to date and answers which rows changed. `onWhite`: what shines through is white
  // instead of transparent.
  std::vector<Rows> draw(const Canvas& canvas, const Picture& picture, bool onWhite);

  // The image, rows from top to bottom, in 32-bit words 0xAARRGGBB whose colours are premultiplied.
  const std::vector<std::uint32_t>& pixels() const { return pixels_; }
  const Canvas& canvas() const { return canvas_; }
  // Where the picture covers at least half of a pixel, one run a row.
  std::vector<PixelRun> silhouette() const;
  // Counts up whenever the silhouette may be another.
  unsigned geometry() const { return geometry_; }

 private:
  // Coverage of the whole canvas by an item, of a shape by its clip alone.
  struct Mask {
    PictureItem item;
    std::vector<std::uint8_t> coverage;
  };

  void updateMasks(const Picture& picture);
  std::vector<std::uint8_t> coverageOf(const PictureItem& item) const;
  std::vector<std::uint8_t> filled(const Outline& outline, FillRule rule) const;
  NSRect inPixels(NSRect rect) const;
  void drawRows(const Picture& picture, Rows rows);

  const Rasterizer& rasterizer_;
  const LabelFont& font_;
  Canvas canvas_;
  bool onWhite_ = false;
  unsigned geometry_ = 0;
  Picture picture_;
  std::vector<Mask> masks_;
  std::vector<std::uint32_t> pixels_;
};

}  // namespace qbv::x11
