#include "vitalscope/platform/linux/windows_x11/screen.h"

#include <xcb/randr.h>

#include <algorithm>
#include <bit>
#include <cmath>

#include "vitalscope/platform/linux/windows_x11/scale.h"

namespace qbv::x11 {
namespace {

struct Monitor {
  PixelRect pixels;
  int millimetres = 0;
};

std::optional<Monitor> monitorOf(xcb_connection_t* connection, xcb_randr_output_t output,
                                 xcb_timestamp_t time) {
  const Owned<xcb_randr_get_output_info_reply_t> info(xcb_randr_get_output_info_reply(
      connection, xcb_randr_get_output_info(connection, output, time), nullptr));
  if (info == nullptr || info->crtc == XCB_NONE) return std::nullopt;
  const Owned<xcb_randr_get_crtc_info_reply_t> crtc(xcb_randr_get_crtc_info_reply(
      connection, xcb_randr_get_crtc_info(connection, info->crtc, time), nullptr));
  if (crtc == nullptr || crtc->width == 0 || crtc->height == 0) return std::nullopt;
  return Monitor{{crtc->x, crtc->y, crtc->width, crtc->height}, static_cast<int>(info->mm_width)};
}

bool hasRandr(xcb_connection_t* connection) {
  const xcb_query_extension_reply_t* const extension = xcb_get_extension_data(connection, &xcb_randr_id);
  return extension != nullptr && extension->present != 0;
}

// The primary output, or the first that shows anything.
std::optional<Monitor> mainMonitor(xcb_connection_t* connection, xcb_window_t root) {
  if (!hasRandr(connection)) return std::nullopt;
  const Owned<xcb_randr_get_screen_resources_current_reply_t> resources(
      xcb_randr_get_screen_resources_current_reply(
          connection, xcb_randr_get_screen_resources_current(connection, root), nullptr));
  if (resources == nullptr) return std::nullopt;
  std::vector<xcb_randr_output_t> outputs;
  const Owned<xcb_randr_get_output_primary_reply_t> primary(xcb_randr_get_output_primary_reply(
      connection, xcb_randr_get_output_primary(connection, root), nullptr));
  if (primary != nullptr && primary->output != XCB_NONE) outputs.push_back(primary->output);
  const xcb_randr_output_t* const all = xcb_randr_get_screen_resources_current_outputs(resources.get());
  outputs.insert(outputs.end(), all, all + resources->num_outputs);
  for (const xcb_randr_output_t output : outputs)
    if (const auto monitor = monitorOf(connection, output, resources->config_timestamp)) return monitor;
  return std::nullopt;
}

bool has32BitPixels(const xcb_setup_t& setup, std::uint8_t depth) {
  const xcb_format_t* const formats = xcb_setup_pixmap_formats(&setup);
  return std::any_of(
      formats, formats + xcb_setup_pixmap_formats_length(&setup),
      [&](const xcb_format_t& format) { return format.depth == depth && format.bits_per_pixel == 32; });
}

bool isUsual(const xcb_visualtype_t& visual) {
  return visual._class == XCB_VISUAL_CLASS_TRUE_COLOR && visual.red_mask == 0xFF0000 &&
         visual.green_mask == 0x00FF00 && visual.blue_mask == 0x0000FF;
}

}  // namespace

PixelRect Screen::toPixels(NSRect rect) const {
  const auto rounded = [](double value) { return static_cast<int>(std::lround(value)); };
  const int width = std::max(rounded(rect.size.width * scale), 1);
  const int height = std::max(rounded(rect.size.height * scale), 1);
  return {pixels.x + rounded(rect.origin.x * scale),
          pixels.y + pixels.height - rounded(rect.origin.y * scale) - height, width, height};
}

NSPoint Screen::toPoints(PixelRect window) const {
  return {(window.x - pixels.x) / scale, (pixels.y + pixels.height - window.y - window.height) / scale};
}

Screen readMainScreen(xcb_connection_t* connection, const xcb_screen_t& root) {
  Monitor monitor{{0, 0, root.width_in_pixels, root.height_in_pixels}, root.width_in_millimeters};
  if (const auto found = mainMonitor(connection, root.root)) monitor = *found;
  Screen screen;
  screen.pixels = monitor.pixels;
  screen.scale = chooseScale({textOf(connection, root.root, XCB_ATOM_RESOURCE_MANAGER),
                              std::getenv("GDK_SCALE"), monitor.pixels.width, monitor.millimetres});
  return screen;
}

std::uint8_t watchScreenChanges(xcb_connection_t* connection, xcb_window_t root) {
  if (!hasRandr(connection)) return 0;
  xcb_randr_select_input(connection, root, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE);
  return static_cast<std::uint8_t>(xcb_get_extension_data(connection, &xcb_randr_id)->first_event +
                                   XCB_RANDR_SCREEN_CHANGE_NOTIFY);
}

std::optional<PixelFormat> choosePixelFormat(xcb_connection_t* connection, const xcb_screen_t& root) {
  const xcb_setup_t& setup = *xcb_get_setup(connection);
  const auto ownOrder =
      std::endian::native == std::endian::little ? XCB_IMAGE_ORDER_LSB_FIRST : XCB_IMAGE_ORDER_MSB_FIRST;
  if (setup.image_byte_order != ownOrder) return std::nullopt;
  for (const std::uint8_t wanted : {std::uint8_t{32}, std::uint8_t{24}}) {
    if (!has32BitPixels(setup, wanted)) continue;
    for (auto depths = xcb_screen_allowed_depths_iterator(&root); depths.rem > 0; xcb_depth_next(&depths)) {
      if (depths.data->depth != wanted) continue;
      const xcb_visualtype_t* const visuals = xcb_depth_visuals(depths.data);
      const xcb_visualtype_t* const end = visuals + xcb_depth_visuals_length(depths.data);
      const auto* const found = std::find_if(visuals, end, isUsual);
      if (found != end) return PixelFormat{wanted, found->visual_id};
    }
  }
  return std::nullopt;
}

}  // namespace qbv::x11
