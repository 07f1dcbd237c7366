// The font that labels are written in.
#pragma once

#include <string>

#include "vitalscope/platform/linux/windows_x11/raster.h"
#include "vitalscope/platform/windows.h"

namespace qbv::x11 {

// The desktop's sans-serif font. Looking for it takes some milliseconds. One thread.
class LabelFont {
 public:
  explicit LabelFont(const Rasterizer& rasterizer);
  ~LabelFont();
  LabelFont(const LabelFont&) = delete;
  LabelFont& operator=(const LabelFont&) = delete;

  // The line of text as an outline in a rectangle of the canvas, in pixels; smaller when it would be wider
  // than that. Nothing when the system has no font.
  Outline line(const std::string& text, double pixelsPerEm, NSTextAlignment alignment, NSRect place) const;

 private:
  double width(const std::u32string& text, double pixelsPerEm) const;

  FT_Face face_ = nullptr;
};

}  // namespace qbv::x11
