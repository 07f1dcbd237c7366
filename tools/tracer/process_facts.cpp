#include "tools/tracer/process_facts.h"

#include <unistd.h>

#include <ctime>
#include <fstream>

namespace tracer {

std::string firstLine(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string linkTarget(const std::string& path) {
  char target[4096];
  const ssize_t length = readlink(path.c_str(), target, sizeof target);
  return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

std::string localDate() {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  localtime_r(&now, &fields);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &fields);
  return text;
}

}  // namespace tracer
