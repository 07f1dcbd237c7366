// Which C libraries' heaps can be read.
#pragma once

#include <cstdlib>
#include <string>

namespace leaks {

// version: as the library tells it, "2.36". The layouts of heap.h hold for these.
inline bool isKnownLibrary(const std::string& version) {
  constexpr int kFirst = 32;
  constexpr int kLast = 41;
  if (!version.starts_with("2.")) return false;
  const int minor = std::atoi(version.c_str() + 2);
  return minor >= kFirst && minor <= kLast;
}

}  // namespace leaks
