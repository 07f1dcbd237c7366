#include "tools/tracer/symbol_name.h"

#include <cxxabi.h>

#include <cstdlib>

namespace tracer {

std::string readableName(std::string_view symbol) {
  std::string name(symbol.substr(0, symbol.find('@')));
  if (!name.starts_with("_Z")) return name;
  int status = 0;
  char* const text = abi::__cxa_demangle(name.c_str(), nullptr, nullptr, &status);
  std::string readable = status == 0 && text != nullptr ? text : name;
  std::free(text);
  return readable;
}

}  // namespace tracer
