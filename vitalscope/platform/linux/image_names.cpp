#include "vitalscope/platform/linux/image_names.h"

#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

namespace qbv::linux_backend {

namespace {

constexpr char kLink[] = "/proc/self/exe";
constexpr std::string_view kDeleted = " (deleted)";

// Without an interpreter's base the kernel started the dynamic loader itself, and the link names that.
bool startedByLoaderCommand() {
  return getauxval(AT_BASE) == 0;
}

bool isTheProgram(const char* path) {
  struct stat named {};
  struct stat running {};
  return stat(path, &named) == 0 && stat(kLink, &running) == 0 && named.st_dev == running.st_dev &&
         named.st_ino == running.st_ino;
}

}  // namespace

void executablePath(char (&path)[PATH_MAX]) {
  path[0] = '\0';
  if (startedByLoaderCommand()) {
    const auto* const program = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    if (program == nullptr || realpath(program, path) == nullptr) path[0] = '\0';
    return;
  }
  const ssize_t size = readlink(kLink, path, sizeof path - 1);
  if (size <= 0) return;
  path[size] = '\0';
  const std::string_view name(path, static_cast<std::size_t>(size));
  if (name.ends_with(kDeleted) && !isTheProgram(path)) path[name.size() - kDeleted.size()] = '\0';
}

const char* executableFile() {
  return startedByLoaderCommand() ? nullptr : kLink;
}

}  // namespace qbv::linux_backend
