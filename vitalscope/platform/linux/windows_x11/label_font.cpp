#include "vitalscope/platform/linux/windows_x11/label_font.h"

#include <fontconfig/fontconfig.h>

#include <cmath>
#include <memory>

namespace qbv::x11 {
namespace {

template <auto destroy>
struct Destroy {
  template <class T>
  void operator()(T* object) const {
    destroy(object);
  }
};

FT_Face openBestMatch(FT_Library library, const char* family) {
  // A configuration of our own: the host's, if it has one, is left alone.
  const std::unique_ptr<FcConfig, Destroy<FcConfigDestroy>> config(FcInitLoadConfigAndFonts());
  const std::unique_ptr<FcPattern, Destroy<FcPatternDestroy>> pattern(FcPatternCreate());
  if (config == nullptr || pattern == nullptr) return nullptr;
  FcPatternAddString(pattern.get(), FC_FAMILY, reinterpret_cast<const FcChar8*>(family));
  FcConfigSubstitute(config.get(), pattern.get(), FcMatchPattern);
  FcDefaultSubstitute(pattern.get());
  FcResult result = FcResultNoMatch;
  const std::unique_ptr<FcPattern, Destroy<FcPatternDestroy>> match(
      FcFontMatch(config.get(), pattern.get(), &result));
  FcChar8* file = nullptr;
  int index = 0;
  if (match == nullptr || FcPatternGetString(match.get(), FC_FILE, 0, &file) != FcResultMatch) return nullptr;
  FcPatternGetInteger(match.get(), FC_INDEX, 0, &index);
  FT_Face face = nullptr;
  return FT_New_Face(library, reinterpret_cast<const char*>(file), index, &face) == 0 ? face : nullptr;
}

// Bytes that are no UTF-8 are left out.
std::u32string decoded(const std::string& text) {
  std::u32string result;
  std::size_t missing = 0;
  for (const char byte : text) {
    const auto value = static_cast<unsigned char>(byte);
    if (value < 0x80) {
      result.push_back(value);
      missing = 0;
    } else if (value >= 0xC0) {
      missing = value >= 0xF0 ? 3 : value >= 0xE0 ? 2 : 1;
      result.push_back(value & (0x3Fu >> missing));
    } else if (missing > 0) {
      --missing;
      result.back() = (result.back() << 6) | (value & 0x3Fu);
    }
  }
  return result;
}

void setSize(FT_Face face, double pixelsPerEm) {
  constexpr FT_UInt pixelsPerInchAtOnePointEach = 72;
  FT_Set_Char_Size(face, std::lround(pixelsPerEm * 64), 0, pixelsPerInchAtOnePointEach,
                   pixelsPerInchAtOnePointEach);
}

}  // namespace

LabelFont::LabelFont(const Rasterizer& rasterizer)
    : face_(openBestMatch(rasterizer.library(), "sans-serif")) {}

LabelFont::~LabelFont() {
  if (face_ != nullptr) FT_Done_Face(face_);
}

double LabelFont::width(const std::u32string& text, double pixelsPerEm) const {
  setSize(face_, pixelsPerEm);
  double total = 0;
  for (const char32_t character : text)
    if (FT_Load_Char(face_, character, FT_LOAD_TARGET_LIGHT | FT_LOAD_NO_BITMAP) == 0)
      total += static_cast<double>(face_->glyph->linearHoriAdvance) / 65536;
  return total;
}

Outline LabelFont::line(const std::string& text, double pixelsPerEm, NSTextAlignment alignment,
                        NSRect place) const {
  Outline outline;
  if (face_ == nullptr) return outline;
  const std::u32string characters = decoded(text);
  double taken = width(characters, pixelsPerEm);
  if (taken > place.size.width) {
    pixelsPerEm *= place.size.width / taken;
    taken = width(characters, pixelsPerEm);
  }
  const FT_Size_Metrics& metrics = face_->size->metrics;
  const double height = static_cast<double>(metrics.ascender - metrics.descender) / 64;
  const double descent = -static_cast<double>(metrics.descender) / 64;
  const double free = place.size.width - taken;
  NSPoint pen{place.origin.x, std::round(place.origin.y + (place.size.height - height) / 2 + descent)};
  if (alignment != NSTextAlignment::left) pen.x += alignment == NSTextAlignment::center ? free / 2 : free;
  for (const char32_t character : characters) {
    if (FT_Load_Char(face_, character, FT_LOAD_TARGET_LIGHT | FT_LOAD_NO_BITMAP) != 0) continue;
    if (face_->glyph->format == FT_GLYPH_FORMAT_OUTLINE) outline.addGlyph(face_->glyph->outline, pen);
    pen.x += static_cast<double>(face_->glyph->linearHoriAdvance) / 65536;
  }
  return outline;
}

}  // namespace qbv::x11
