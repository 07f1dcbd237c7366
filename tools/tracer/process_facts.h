// What the kernel tells of a process in a line, and the date that a report about it carries.
#pragma once

#include <string>

namespace tracer {

// The file's first line without its end; "" when it cannot be read.
std::string firstLine(const std::string& path);
// What a symbolic link points at; "" when it is none or may not be read.
std::string linkTarget(const std::string& path);
// Now, such as "2026-02-28 23:59:59", in local time.
std::string localDate();

}  // namespace tracer
