// How many pixels a point takes.
#pragma once

#include <string>

namespace qbv::x11 {

struct ScaleFacts {
  std::string resources{};         // the display's resource database, lines "name: value"
  const char* gdkScale = nullptr;  // the environment's GDK_SCALE
  int pixelWidth = 0;              // of the main screen
  int millimetres = 0;             // its width; 0 when it is not known
};

// The user's own word counts first: the larger of Xft.dpi / 96 and GDK_SCALE. Where neither is set, 2 on a
// screen of more than 168 pixels per inch that tells a believable size, else 1. From 1 to 4.
double chooseScale(const ScaleFacts& facts);

}  // namespace qbv::x11
