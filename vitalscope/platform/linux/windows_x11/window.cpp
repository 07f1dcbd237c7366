#include "vitalscope/platform/linux/windows_x11/window.h"

#include <xcb/shape.h>

#include <algorithm>
#include <cmath>
#include <string_view>

namespace qbv::x11 {
namespace {

constexpr std::string_view kTitle = "QuibVitalscope";
constexpr std::string_view kClass{"quibvitalscope\0QuibVitalscope\0", 30};

xcb_rectangle_t rectangle(PixelRun run) {
  return {static_cast<std::int16_t>(run.left), static_cast<std::int16_t>(run.row),
          static_cast<std::uint16_t>(run.width), 1};
}

}  // namespace

Window::Window(const Desk& desk, const Rasterizer& rasterizer, const LabelFont& font, WindowNumber number)
    : desk_(desk), number_(number), renderer_(rasterizer, font) {
  create();
  describe();
}

Window::~Window() {
  xcb_free_gc(desk_.connection, context_);
  xcb_destroy_window(desk_.connection, id_);
  xcb_free_colormap(desk_.connection, colours_);
}

void Window::create() {
  xcb_connection_t* const connection = desk_.connection;
  id_ = xcb_generate_id(connection);
  colours_ = xcb_generate_id(connection);
  context_ = xcb_generate_id(connection);
  pixels_ = {0, 0, 1, 1};
  xcb_create_colormap(connection, XCB_COLORMAP_ALLOC_NONE, colours_, desk_.root->root, desk_.format.visual);
  // A window of another depth than its parent's needs a border of its own, too.
  const std::uint32_t values[] = {0, 0, 1,
                                  XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_BUTTON_PRESS |
                                      XCB_EVENT_MASK_BUTTON_RELEASE | XCB_EVENT_MASK_BUTTON_1_MOTION,
                                  colours_};
  xcb_create_window(connection, desk_.format.depth, id_, desk_.root->root, 0, 0, 1, 1, 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, desk_.format.visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_BORDER_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK |
                        XCB_CW_COLORMAP,
                    values);
  xcb_create_gc(connection, context_, id_, 0, nullptr);
}

// For compositors and tools; the window manager does not look.
void Window::describe() {
  xcb_connection_t* const connection = desk_.connection;
  const auto setText = [&](xcb_atom_t property, xcb_atom_t type, std::string_view text) {
    xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id_, property, type, 8,
                        static_cast<std::uint32_t>(text.size()), text.data());
  };
  setText(XCB_ATOM_WM_NAME, XCB_ATOM_STRING, kTitle);
  setText(atom(connection, "_NET_WM_NAME"), atom(connection, "UTF8_STRING"), kTitle);
  setText(XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, kClass);
  const xcb_atom_t dock = atom(connection, "_NET_WM_WINDOW_TYPE_DOCK");  // no shadow, no dimming
  xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id_, atom(connection, "_NET_WM_WINDOW_TYPE"),
                      XCB_ATOM_ATOM, 32, 1, &dock);
}

void Window::present(const WindowState& state) {
  const bool frameChanged = state.frame != state_.frame;
  state_ = state;
  if (!state.visible) {
    if (visible_) xcb_unmap_window(desk_.connection, id_);
    visible_ = false;
    drag_.reset();
    return;
  }
  if (frameChanged && visible_) place(desk_.screen.toPixels(state_.frame));
  if (visible_)
    draw();
  else
    show();
}

void Window::redraw() {
  if (!visible_) return;
  if (!drag_) place(desk_.screen.toPixels(state_.frame));
  draw();
}

// Wherever the screen's edges are by now, the window comes up inside of them.
void Window::show() {
  PixelRect where = desk_.screen.toPixels(state_.frame);
  const PixelRect& screen = desk_.screen.pixels;
  where.x = std::max(std::min(where.x, screen.x + screen.width - where.width), screen.x);
  where.y = std::max(std::min(where.y, screen.y + screen.height - where.height), screen.y);
  place(where);
  visible_ = true;
  draw();
  xcb_map_window(desk_.connection, id_);
  raise();
  send({0, pixels_.height});
}

void Window::place(PixelRect where) {
  if (where == pixels_) return;
  pixels_ = where;
  const std::uint32_t values[] = {static_cast<std::uint32_t>(where.x), static_cast<std::uint32_t>(where.y),
                                  static_cast<std::uint32_t>(where.width),
                                  static_cast<std::uint32_t>(where.height)};
  xcb_configure_window(
      desk_.connection, id_,
      XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH | XCB_CONFIG_WINDOW_HEIGHT, values);
}

void Window::raise() {
  if (state_.traits.level <= 0) return;
  const std::uint32_t above = XCB_STACK_MODE_ABOVE;
  xcb_configure_window(desk_.connection, id_, XCB_CONFIG_WINDOW_STACK_MODE, &above);
}

void Window::draw() {
  const bool onWhite = !desk_.composited || desk_.format.depth != 32;
  const auto changed =
      renderer_.draw({pixels_.width, pixels_.height, desk_.screen.scale}, state_.picture, onWhite);
  if (cutGeometry_ != renderer_.geometry() || cutForCompositor_ == onWhite) cutOut();
  for (const Rows rows : changed) send(rows);
}

// Under a compositor the shape only decides where clicks land: its edge is smooth. Without one it is all
// there is.
void Window::cutOut() {
  const bool mixed = desk_.composited && desk_.format.depth == 32;
  cutGeometry_ = renderer_.geometry();
  cutForCompositor_ = mixed;
  std::vector<xcb_rectangle_t> rectangles;
  for (const PixelRun run : renderer_.silhouette()) rectangles.push_back(rectangle(run));
  const auto cut = [&](xcb_shape_sk_t kind) {
    xcb_shape_rectangles(desk_.connection, XCB_SHAPE_SO_SET, kind, XCB_CLIP_ORDERING_YX_BANDED, id_, 0, 0,
                         static_cast<std::uint32_t>(rectangles.size()), rectangles.data());
  };
  cut(XCB_SHAPE_SK_INPUT);
  if (mixed)
    xcb_shape_mask(desk_.connection, XCB_SHAPE_SO_SET, XCB_SHAPE_SK_BOUNDING, id_, 0, 0, XCB_NONE);
  else
    cut(XCB_SHAPE_SK_BOUNDING);
}

void Window::exposed(int y, int height) {
  if (visible_ && renderer_.canvas().height == pixels_.height)
    send({std::max(y, 0), std::min(y + height, pixels_.height)});
}

void Window::send(Rows rows) {
  constexpr std::uint32_t requestHeader = 64;
  const auto rowBytes = static_cast<std::uint32_t>(pixels_.width) * 4;
  const std::uint32_t most = xcb_get_maximum_request_length(desk_.connection) * 4 - requestHeader;
  const int rowsAtOnce = std::max(static_cast<int>(most / rowBytes), 1);
  for (int top = rows.top; top < rows.bottom; top += rowsAtOnce) {
    const int count = std::min(rowsAtOnce, rows.bottom - top);
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(
        renderer_.pixels().data() + static_cast<std::ptrdiff_t>(top) * pixels_.width);
    xcb_put_image(desk_.connection, XCB_IMAGE_FORMAT_Z_PIXMAP, id_, context_,
                  static_cast<std::uint16_t>(pixels_.width), static_cast<std::uint16_t>(count), 0,
                  static_cast<std::int16_t>(top), 0, desk_.format.depth,
                  rowBytes * static_cast<std::uint32_t>(count), bytes);
  }
}

NSPoint Window::locationOf(int x, int y) const {
  return {(x + 0.5) / desk_.screen.scale, (pixels_.height - y - 0.5) / desk_.screen.scale};
}

void Window::pressed(const xcb_button_press_event_t& event, linux_backend::DisplayListener& listener) {
  if (event.detail != XCB_BUTTON_INDEX_1) return;
  drag_ = Drag{event.root_x, event.root_y, pixels_, false};
  listener.mouseEvent(number_, {NSEvent::Type::leftMouseDown, locationOf(event.event_x, event.event_y)});
}

void Window::pointerMoved(const xcb_motion_notify_event_t& event) {
  constexpr double slackInPoints = 3;  // a hand trembles
  if (!drag_ || !state_.traits.movable || !state_.traits.movableByWindowBackground) return;
  const int right = event.root_x - drag_->pointerX;
  const int down = event.root_y - drag_->pointerY;
  if (std::hypot(right, down) > slackInPoints * desk_.screen.scale) drag_->moving = true;
  if (!drag_->moving) return;
  PixelRect where = drag_->window;
  where.x += right;
  where.y += down;
  place(where);
}

void Window::released(const xcb_button_release_event_t& event, linux_backend::DisplayListener& listener) {
  if (event.detail != XCB_BUTTON_INDEX_1 || !drag_) return;
  const bool moved = drag_->moving;
  drag_.reset();
  if (moved)
    listener.windowMoved(number_, desk_.screen.toPoints(pixels_));
  else
    listener.mouseEvent(number_, {NSEvent::Type::leftMouseUp, locationOf(event.event_x, event.event_y)});
}

}  // namespace qbv::x11
