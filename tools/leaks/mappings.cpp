#include <algorithm>
#include <array>
#include <cctype>
#include <cinttypes>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "tools/leaks/process_reader.h"

namespace leaks {

namespace {

std::string fileName(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

bool isLibrary(const std::string& path) {
  const std::string name = fileName(path);
  return name.starts_with("libc.so.6") || name.starts_with("libc-2.");
}

bool parseLine(const std::string& line, Mapping& mapping) {
  char flags[5] = {};
  unsigned long inode = 0;
  int nameAt = 0;
  if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %*s %lu %n", &mapping.range.begin,
                  &mapping.range.end, flags, &mapping.fileOffset, &inode, &nameAt) < 5)
    return false;
  mapping.readable = flags[0] == 'r';
  mapping.writable = flags[1] == 'w';
  mapping.shared = flags[3] == 's';
  mapping.name = line.substr(static_cast<std::size_t>(nameAt));
  mapping.anonymous = inode == 0;
  return mapping.range.begin < mapping.range.end;
}

}  // namespace

std::vector<Mapping> parseMappings(const std::string& maps) {
  std::vector<Mapping> mappings;
  std::istringstream lines(maps);
  for (std::string line; std::getline(lines, line);)
    if (Mapping mapping; parseLine(line, mapping)) mappings.push_back(std::move(mapping));
  return mappings;
}

std::vector<Mapping> mappingsOf(pid_t process) {
  std::ostringstream text;
  text << std::ifstream("/proc/" + std::to_string(process) + "/maps").rdbuf();
  return parseMappings(text.str());
}

std::string libraryPath(const std::vector<Mapping>& mappings) {
  for (const Mapping& mapping : mappings)
    if (!mapping.anonymous && isLibrary(mapping.name)) return mapping.name;
  return "";
}

std::string foreignAllocator(const std::vector<Mapping>& mappings) {
  constexpr std::array kNames = {"libjemalloc", "libtcmalloc", "libmimalloc",        "libasan",
                                 "libtsan",     "liblsan",     "libhwasan",          "libclang_rt.",
                                 "libscudo",    "libsnmalloc", "libtbbmalloc_proxy", "libhoard",
                                 "vgpreload_",  "librpmalloc"};
  for (const Mapping& mapping : mappings) {
    std::string name = mapping.anonymous ? "" : fileName(mapping.name);
    if (std::any_of(kNames.begin(), kNames.end(), [&](const char* known) { return name.starts_with(known); }))
      return name;
  }
  return "";
}

std::vector<Range> libraryData(const std::vector<Mapping>& mappings, const std::string& path) {
  std::vector<Range> ranges;
  bool follows = false;
  for (const Mapping& mapping : mappings) {
    const bool isOwn = !path.empty() && mapping.name == path;
    // What the file does not hold of the variables lies in nameless memory right behind.
    const bool isRest = follows && mapping.anonymous && mapping.name.empty() && !ranges.empty() &&
                        ranges.back().end == mapping.range.begin;
    if (mapping.readable && mapping.writable && !mapping.shared && (isOwn || isRest)) {
      if (isRest)
        ranges.back().end = std::min(mapping.range.end, mapping.range.begin + (Address{1} << 20));
      else
        ranges.push_back(mapping.range);
    }
    follows = isOwn && mapping.writable;
  }
  return ranges;
}

std::string libraryVersion(pid_t process, const std::vector<Mapping>& mappings, const std::string& path) {
  constexpr Address kLargest = Address{16} << 20;
  for (const Mapping& mapping : mappings) {
    if (path.empty() || mapping.name != path || !mapping.readable || mapping.range.size() > kLargest)
      continue;
    std::string text(static_cast<std::size_t>(mapping.range.size()), '\0');
    if (!readMemory(process, mapping.range.begin, text.data(), text.size())) continue;
    const std::size_t banner = text.find("GNU C Library (");
    const std::size_t word = banner == std::string::npos ? banner : text.find(" version ", banner);
    if (word == std::string::npos || word > banner + 200) continue;
    std::string version;
    for (std::size_t at = word + 9; at < text.size() && (text[at] == '.' || std::isdigit(text[at])); ++at)
      version += text[at];
    while (version.ends_with('.')) version.pop_back();
    return version;
  }
  return "";
}

}  // namespace leaks
