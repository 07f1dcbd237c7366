#include "vitalscope/platform/linux/windows_x11/xcb.h"

#include <cstring>
#include <string_view>

namespace qbv::x11 {
namespace {

constexpr std::uint32_t kMostTextWords = 65536;

Owned<xcb_get_property_reply_t> property(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t name,
                                         std::uint32_t words) {
  return Owned<xcb_get_property_reply_t>(xcb_get_property_reply(
      connection, xcb_get_property(connection, 0, window, name, XCB_GET_PROPERTY_TYPE_ANY, 0, words),
      nullptr));
}

}  // namespace

xcb_atom_t atom(xcb_connection_t* connection, const char* name) {
  const auto length = static_cast<std::uint16_t>(std::strlen(name));
  const Owned<xcb_intern_atom_reply_t> reply(
      xcb_intern_atom_reply(connection, xcb_intern_atom(connection, 0, length, name), nullptr));
  return reply != nullptr ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

std::vector<std::uint32_t> wordsOf(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t name,
                                   std::uint32_t most) {
  const auto reply = property(connection, window, name, most);
  if (reply == nullptr || reply->format != 32) return {};
  std::vector<std::uint32_t> words(static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / 4);
  if (!words.empty()) std::memcpy(words.data(), xcb_get_property_value(reply.get()), words.size() * 4);
  return words;
}

std::string textOf(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t name) {
  const auto reply = property(connection, window, name, kMostTextWords);
  if (reply == nullptr || reply->format != 8) return {};
  return {static_cast<const char*>(xcb_get_property_value(reply.get())),
          static_cast<std::size_t>(xcb_get_property_value_length(reply.get()))};
}

}  // namespace qbv::x11
