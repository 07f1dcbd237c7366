#include "tests/dashboard/picture.h"

#include <png.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace dashboard_test {

std::optional<Image> readPng(const std::string& path) {
  png_image file{};
  file.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&file, path.c_str()) == 0) return std::nullopt;
  file.format = PNG_FORMAT_RGB;
  std::vector<png_byte> bytes(PNG_IMAGE_SIZE(file));
  if (png_image_finish_read(&file, nullptr, bytes.data(), 0, nullptr) == 0) return std::nullopt;
  Image image{static_cast<int>(file.width), static_cast<int>(file.height), {}};
  for (std::size_t at = 0; at + 2 < bytes.size(); at += 3)
    image.pixels.push_back(static_cast<std::uint32_t>(bytes[at] << 16 | bytes[at + 1] << 8 | bytes[at + 2]));
  return image;
}

bool writePng(const Image& image, const std::string& path) {
  std::vector<png_byte> bytes;
  for (const std::uint32_t pixel : image.pixels)
    for (const unsigned shift : {16u, 8u, 0u}) bytes.push_back(static_cast<png_byte>(pixel >> shift));
  png_image file{};
  file.version = PNG_IMAGE_VERSION;
  file.width = static_cast<png_uint_32>(image.width);
  file.height = static_cast<png_uint_32>(image.height);
  file.format = PNG_FORMAT_RGB;
  return png_image_write_to_file(&file, path.c_str(), 0, bytes.data(), 0, nullptr) != 0;
}

Difference difference(const Image& a, const Image& b) {
  if (a.width != b.width || a.height != b.height || a.pixels.empty()) return {};
  double strong = 0;
  double sum = 0;
  for (std::size_t i = 0; i < a.pixels.size(); ++i) {
    int largest = 0;
    for (const unsigned shift : {16u, 8u, 0u}) {
      const int apart = std::abs(static_cast<int>((a.pixels[i] >> shift) & 0xFF) -
                                 static_cast<int>((b.pixels[i] >> shift) & 0xFF));
      largest = std::max(largest, apart);
      sum += apart;
    }
    strong += largest > 40 ? 1 : 0;
  }
  const auto count = static_cast<double>(a.pixels.size());
  return {strong / count, sum / (3 * count)};
}

Screenshot::Screenshot(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
  if (xcb_connection_has_error(connection_) != 0) throw std::runtime_error("no display " + display);
  const xcb_screen_t* const screen = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
  root_ = screen->root;
  width_ = screen->width_in_pixels;
  height_ = screen->height_in_pixels;
}

Image Screenshot::take(int x, int y, int width, int height) const {
  Image image{width, height, {}};
  const std::unique_ptr<xcb_get_image_reply_t, void (*)(void*)> reply(
      xcb_get_image_reply(
          connection_,
          xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, root_, static_cast<std::int16_t>(x),
                        static_cast<std::int16_t>(y), static_cast<std::uint16_t>(width),
                        static_cast<std::uint16_t>(height), ~0u),
          nullptr),
      std::free);
  if (reply == nullptr) return image;
  image.pixels.resize(static_cast<std::size_t>(width) * static_cast<std::size_t>(height));
  std::memcpy(image.pixels.data(), xcb_get_image_data(reply.get()), image.pixels.size() * 4);
  for (std::uint32_t& pixel : image.pixels) pixel &= 0xFFFFFF;
  return image;
}

}  // namespace dashboard_test
