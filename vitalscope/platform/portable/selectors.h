// What a selector is made of.
#pragma once

#include "vitalscope/platform/objc.h"

namespace qbv {

// A selector's address, taken modulo a power of 2, is its place in a method cache; so they stand close
// together, 8 bytes each.
struct objc_selector {
  const char* name;
};

}  // namespace qbv
