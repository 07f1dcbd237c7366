#include "vitalscope/platform/linux/windows_x11/renderer.h"

#include <algorithm>
#include <cmath>

namespace qbv::x11 {
namespace {

constexpr std::uint32_t kWhite = 0xFFFFFFFF;

std::uint32_t divided255(std::uint32_t value) {
  value += 128;
  return (value + (value >> 8)) >> 8;
}

// A colour ready to be laid over pixels.
class Ink {
 public:
  explicit Ink(NSColor color) {
    const auto byte = [&](double part) {
      return static_cast<std::uint32_t>(std::lround(std::clamp(part, 0.0, 1.0) * 255));
    };
    channels_[3] = byte(color.alpha);
    channels_[2] = byte(color.red * color.alpha);
    channels_[1] = byte(color.green * color.alpha);
    channels_[0] = byte(color.blue * color.alpha);
  }

  void over(std::uint32_t& pixel, std::uint32_t coverage) const {
    const std::uint32_t kept = 255 - divided255(channels_[3] * coverage);
    std::uint32_t result = 0;
    for (unsigned channel = 0; channel < 4; ++channel) {
      const std::uint32_t old = (pixel >> (8 * channel)) & 0xFF;
      const std::uint32_t value = divided255(channels_[channel] * coverage + old * kept);
      result |= std::min(value, 255u) << (8 * channel);
    }
    pixel = result;
  }

 private:
  std::uint32_t channels_[4];
};

bool sameCoverage(const PictureItem& a, const PictureItem& b) {
  PictureItem alike = a;
  alike.color = b.color;
  if (b.kind == PictureItem::Kind::shape) alike.path = b.path;
  return alike == b;
}

}  // namespace

NSRect Renderer::inPixels(NSRect rect) const {
  const double scale = canvas_.scale;
  return {{rect.origin.x * scale, rect.origin.y * scale},
          {rect.size.width * scale, rect.size.height * scale}};
}

std::vector<std::uint8_t> Renderer::filled(const Outline& outline, FillRule rule) const {
  std::vector<std::uint8_t> coverage(pixels_.size());
  rasterizer_.fill(outline, rule, canvas_.width, canvas_.height, {0, canvas_.height},
                   [&](int row, int x, int length, int covered) {
                     std::fill_n(coverage.begin() + row * canvas_.width + x, length,
                                 static_cast<std::uint8_t>(covered));
                   });
  return coverage;
}

std::vector<std::uint8_t> Renderer::coverageOf(const PictureItem& item) const {
  const NSRect frame = inPixels(item.frame);
  const double radius = item.cornerRadius * canvas_.scale;
  Outline outline;
  switch (item.kind) {
    case PictureItem::Kind::fill:
      outline.addRoundedRect(frame, radius);
      break;
    case PictureItem::Kind::border: {
      const double width = item.borderWidth * canvas_.scale;
      outline.addRoundedRect(frame, radius);
      outline.addRoundedRect({{frame.origin.x + width, frame.origin.y + width},
                              {frame.size.width - 2 * width, frame.size.height - 2 * width}},
                             radius - width);
      break;
    }
    case PictureItem::Kind::text:
      outline = font_.line(item.text, item.fontSize * canvas_.scale, item.alignment, frame);
      break;
    case PictureItem::Kind::shape:
      outline.addRoundedRect(frame, 0);
      break;
  }
  const bool ring = item.kind == PictureItem::Kind::border;
  std::vector<std::uint8_t> coverage = filled(outline, ring ? FillRule::evenOdd : FillRule::nonZero);
  if (item.clip == item.frame && item.clipRadius == 0) return coverage;
  Outline clip;
  clip.addRoundedRect(inPixels(item.clip), item.clipRadius * canvas_.scale);
  const std::vector<std::uint8_t> visible = filled(clip, FillRule::nonZero);
  std::transform(
      coverage.begin(), coverage.end(), visible.begin(), coverage.begin(),
      [](std::uint32_t a, std::uint32_t b) { return static_cast<std::uint8_t>(divided255(a * b)); });
  return coverage;
}

void Renderer::updateMasks(const Picture& picture) {
  masks_.resize(picture.size());
  for (std::size_t i = 0; i < picture.size(); ++i) {
    Mask& mask = masks_[i];
    if (!mask.coverage.empty() && sameCoverage(mask.item, picture[i])) continue;
    mask.coverage = coverageOf(picture[i]);
    if (picture[i].kind != PictureItem::Kind::text) ++geometry_;
    mask.item = picture[i];
    mask.item.path = nullptr;
  }
}

std::vector<Rows> Renderer::draw(const Canvas& canvas, const Picture& picture, bool onWhite) {
  std::vector<Rows> changed;
  if (canvas != canvas_ || onWhite != onWhite_ || pixels_.empty() || picture.size() != picture_.size()) {
    if (canvas != canvas_) masks_.clear();
    canvas_ = canvas;
    onWhite_ = onWhite;
    ++geometry_;
    pixels_.assign(static_cast<std::size_t>(canvas.width) * static_cast<std::size_t>(canvas.height), 0);
    changed = {{0, canvas.height}};
  } else {
    changed = changedRows(canvas, picture_, picture);
  }
  if (changed.empty()) return changed;
  updateMasks(picture);
  for (const Rows rows : changed) drawRows(picture, rows);
  picture_ = picture;
  return changed;
}

void Renderer::drawRows(const Picture& picture, Rows rows) {
  const auto first = static_cast<std::ptrdiff_t>(rows.top) * canvas_.width;
  const auto end = static_cast<std::ptrdiff_t>(rows.bottom) * canvas_.width;
  std::fill(pixels_.begin() + first, pixels_.begin() + end, onWhite_ ? kWhite : 0);
  for (std::size_t i = 0; i < picture.size(); ++i) {
    const PictureItem& item = picture[i];
    const Ink ink(item.color);
    const std::uint8_t* const mask = masks_[i].coverage.data();
    std::uint32_t* const pixels = pixels_.data();
    if (item.kind != PictureItem::Kind::shape) {
      for (std::ptrdiff_t at = first; at < end; ++at)
        if (mask[at] != 0) ink.over(pixels[at], mask[at]);
      continue;
    }
    Outline outline;
    outline.addPath(*item.path, canvas_.scale, inPixels(item.frame).origin);
    rasterizer_.fill(outline, FillRule::nonZero, canvas_.width, canvas_.height, rows,
                     [&](int row, int x, int length, int covered) {
                       const std::ptrdiff_t start = static_cast<std::ptrdiff_t>(row) * canvas_.width + x;
                       const auto amount = static_cast<std::uint32_t>(covered);
                       for (std::ptrdiff_t at = start; at < start + length; ++at)
                         if (mask[at] != 0) ink.over(pixels[at], divided255(mask[at] * amount));
                     });
  }
}

std::vector<PixelRun> Renderer::silhouette() const {
  std::vector<PixelRun> runs;
  for (int row = 0; row < canvas_.height; ++row) {
    int left = canvas_.width;
    int right = 0;
    for (const Mask& mask : masks_) {
      if (mask.item.kind == PictureItem::Kind::text) continue;
      const auto begin = mask.coverage.begin() + static_cast<std::ptrdiff_t>(row) * canvas_.width;
      const auto end = begin + canvas_.width;
      const auto covered = [](std::uint8_t coverage) { return coverage >= 128; };
      const auto leftmost = std::find_if(begin, end, covered);
      if (leftmost == end) continue;
      left = std::min(left, static_cast<int>(leftmost - begin));
      auto rightmost = end;
      while (!covered(*(rightmost - 1))) --rightmost;
      right = std::max(right, static_cast<int>(rightmost - begin));
    }
    if (right > left) runs.push_back({row, left, right - left});
  }
  return runs;
}

}  // namespace qbv::x11
