// key=value arguments as the user info of a notification.
#pragma once

#include <string>
#include <vector>

#include "vitalscope/platform/value.h"

namespace qbv::cli {

// A value that is JSON (true, false, null, a number, a quoted text, an array, an object) is taken as that,
// anything else as text. nil for no arguments; nothing, with the reason in `error`, when one has no key or a
// key comes twice.
std::optional<Value> userInfoFrom(const std::vector<std::string>& pairs, std::string& error);

}  // namespace qbv::cli
