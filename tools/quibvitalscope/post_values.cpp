#include "tools/quibvitalscope/post_values.h"

namespace qbv::cli {
namespace {

Value valueOf(const std::string& text) {
  // In an array, so that a lone value is a whole JSON text; a comma must not make two of it.
  const std::optional<Value> array = Value::fromJSON("[" + text + "]");
  const bool one = array && array->array() != nullptr && array->array()->size() == 1;
  return one ? array->array()->front() : Value(text);
}

}  // namespace

std::optional<Value> userInfoFrom(const std::vector<std::string>& pairs, std::string& error) {
  if (pairs.empty()) return Value();
  Value::Dictionary info;
  for (const std::string& pair : pairs) {
    const auto equals = pair.find('=');
    if (equals == std::string::npos || equals == 0) {
      error = "'" + pair + "' is not of the form key=value";
      return std::nullopt;
    }
    const std::string key = pair.substr(0, equals);
    if (!info.emplace(key, valueOf(pair.substr(equals + 1))).second) {
      error = "'" + key + "' is given twice";
      return std::nullopt;
    }
  }
  return Value(std::move(info));
}

}  // namespace qbv::cli
