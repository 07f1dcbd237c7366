// Symbols as people read them.
#pragma once

#include <string>
#include <string_view>

namespace tracer {

// A symbol without its version, and demangled if it is a mangled function or object. A name of C that is a
// single letter is a mangled type as well, so types are left alone.
std::string readableName(std::string_view symbol);

}  // namespace tracer
