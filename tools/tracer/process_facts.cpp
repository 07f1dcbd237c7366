#include "tools/tracer/process_facts.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace tracer {

std::vector<pid_t> threadsOf(pid_t process) {
  std::vector<pid_t> threads;
  const std::string path = "/proc/" + std::to_string(process) + "/task";
  DIR* const folder = opendir(path.c_str());
  if (folder == nullptr) return threads;
  while (const dirent* const entry = readdir(folder))
    if (const long thread = std::strtol(entry->d_name, nullptr, 10); thread > 0)
      threads.push_back(static_cast<pid_t>(thread));
  closedir(folder);
  return threads;
}

bool hasEnded(pid_t process, pid_t thread) {
  const std::string line =
      firstLine("/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/stat");
  const std::size_t name = line.rfind(')');
  return name == std::string::npos || name + 2 >= line.size() || line[name + 2] == 'Z' ||
         line[name + 2] == 'X';
}

pid_t livingThread(pid_t process) {
  const std::vector<pid_t> threads = threadsOf(process);
  const auto living =
      std::find_if(threads.begin(), threads.end(), [=](pid_t thread) { return !hasEnded(process, thread); });
  return living == threads.end() ? 0 : *living;
}

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
