// The protocol library, and owners for what it hands out.
#pragma once

#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace qbv::x11 {

struct Free {
  void operator()(void* memory) const { std::free(memory); }
};
template <class T>
using Owned = std::unique_ptr<T, Free>;

struct Disconnect {
  void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};
using Connection = std::unique_ptr<xcb_connection_t, Disconnect>;

// 0 when the display is lost. Waits for the display.
xcb_atom_t atom(xcb_connection_t* connection, const char* name);
// Words of a property of 32-bit format, at most `most`; empty when there is none. Waits for the display.
std::vector<std::uint32_t> wordsOf(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t property,
                                   std::uint32_t most);
// Bytes of a text property. Waits for the display.
std::string textOf(xcb_connection_t* connection, xcb_window_t window, xcb_atom_t property);

}  // namespace qbv::x11
