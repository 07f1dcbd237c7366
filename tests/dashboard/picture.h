// Pictures: of a display, stored, and compared.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace dashboard_test {

struct Image {
  int width = 0;
  int height = 0;
  std::vector<std::uint32_t> pixels;  // 0xRRGGBB, rows top to bottom
  std::uint32_t at(int x, int y) const {
    return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) +
                  static_cast<std::size_t>(x)];
  }
  bool operator==(const Image&) const = default;
};

std::optional<Image> readPng(const std::string& path);
bool writePng(const Image& image, const std::string& path);

struct Difference {
  double strong = 1;  // share of pixels of which a channel differs by more than 40 of 255
  double mean = 255;  // of all channels
};
// Everything, for images of different sizes.
Difference difference(const Image& a, const Image& b);

// What a display shows. Each test has a connection of its own.
class Screenshot {
 public:
  explicit Screenshot(const std::string& display);
  ~Screenshot() { xcb_disconnect(connection_); }
  Screenshot(const Screenshot&) = delete;
  Screenshot& operator=(const Screenshot&) = delete;

  int width() const { return width_; }
  int height() const { return height_; }
  Image take(int x, int y, int width, int height) const;
  xcb_connection_t* connection() const { return connection_; }

 private:
  xcb_connection_t* connection_;
  xcb_window_t root_ = 0;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace dashboard_test
