#include "tools/quibvitalscope/run_target.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string_view>

#include "tools/quibvitalscope/command.h"
#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::cli {
namespace {

using linux_backend::Descriptor;

constexpr int kMostInterpreters = 5;  // the kernel follows no more
constexpr unsigned kMostSegments = 512;

Refusal refused(const std::string& path, const std::string& why) {
  return {kExitUnmonitored, path + " cannot be monitored: " + why};
}

bool isProgram(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

Refusal notRunnable(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    const int code = errno == ENOENT || errno == ENOTDIR ? kExitNotFound : kExitNotExecutable;
    return {code, "cannot run " + path + ": " + std::strerror(errno)};
  }
  return {kExitNotExecutable, "cannot run " + path + ": " +
                                  (S_ISDIR(status.st_mode) ? "it is a folder" : "it is not executable")};
}

struct Program {
  bool elf = false;
  unsigned char fileClass = 0;
  std::uint16_t machine = 0;
  std::string loader;  // "" when it is linked statically
};

std::string readText(int file, std::uint64_t offset, std::size_t length) {
  std::string text(length, '\0');
  const ssize_t count = ::pread(file, text.data(), text.size(), static_cast<off_t>(offset));
  text.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return text;
}

std::string loaderOf(int file, const Elf64_Ehdr& header) {
  for (unsigned i = 0; i < header.e_phnum && i < kMostSegments; ++i) {
    Elf64_Phdr segment;
    const auto at = static_cast<off_t>(header.e_phoff + i * sizeof segment);
    if (::pread(file, &segment, sizeof segment, at) != static_cast<ssize_t>(sizeof segment)) return "";
    if (segment.p_type != PT_INTERP || segment.p_filesz > 4096) continue;
    return readText(file, segment.p_offset, segment.p_filesz).c_str();
  }
  return "";
}

Program inspect(int file) {
  Program program;
  Elf64_Ehdr header{};
  const ssize_t count = ::pread(file, &header, sizeof header, 0);
  program.elf = count > EI_NIDENT + 4 && std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0;
  if (!program.elf) return program;
  program.fileClass = header.e_ident[EI_CLASS];
  program.machine = header.e_machine;
  if (program.fileClass == ELFCLASS64 && header.e_phentsize == sizeof(Elf64_Phdr))
    program.loader = loaderOf(file, header);
  return program;
}

const Program& ownProgram() {
  static const Program own = inspect(Descriptor(::open("/proc/self/exe", O_RDONLY | O_CLOEXEC)).get());
  return own;
}

std::string_view fileName(std::string_view path) {
  return path.substr(path.rfind('/') + 1);
}

std::optional<std::string> elfObstacle(const Program& program) {
  const Program& own = ownProgram();
  if (program.fileClass == ELFCLASS32) return "it is a 32-bit program";
  if (program.machine != own.machine) return "it is for another processor architecture";
  if (program.loader.empty()) return "it is statically linked, so nothing can be preloaded into it";
  if (fileName(program.loader) != fileName(own.loader))
    return "it is loaded by " + program.loader + ", which belongs to another C library than the monitor's";
  return std::nullopt;
}

std::optional<std::string> privilegeObstacle(const std::string& path, int file) {
  struct stat status {};
  ::fstat(file, &status);
  if ((status.st_mode & S_ISUID) != 0 && status.st_uid != ::geteuid())
    return "it is set-user-ID, so the loader ignores preloaded libraries";
  constexpr mode_t kSetGroup = S_ISGID | S_IXGRP;
  if ((status.st_mode & kSetGroup) == kSetGroup && status.st_gid != ::getegid())
    return "it is set-group-ID, so the loader ignores preloaded libraries";
  if (::geteuid() != 0 && ::getxattr(path.c_str(), "security.capability", nullptr, 0) > 0)
    return "it has file capabilities, so the loader ignores preloaded libraries";
  return std::nullopt;
}

// The program in a script's first line; "" when the file is no script.
std::string interpreterOf(int file) {
  std::string line = readText(file, 0, 256);
  if (!line.starts_with("#!")) return "";
  std::string interpreter;
  std::istringstream(line.substr(2, line.find('\n') - 2)) >> interpreter;
  return interpreter;
}

std::optional<Refusal> judge(const std::string& path, int depth) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  // What may be run but not read gets the benefit of the doubt.
  if (!file) return std::nullopt;
  const Program program = inspect(file.get());
  if (program.elf) {
    auto obstacle = elfObstacle(program);
    if (!obstacle) obstacle = privilegeObstacle(path, file.get());
    return obstacle ? std::optional(refused(path, *obstacle)) : std::nullopt;
  }
  const std::string interpreter = interpreterOf(file.get());
  if (interpreter.empty()) return Refusal{kExitNotExecutable, "cannot run " + path + ": it is no program"};
  if (!isProgram(interpreter))
    return Refusal{kExitNotExecutable,
                   "cannot run " + path + ": its interpreter " + interpreter + " is missing"};
  return depth < kMostInterpreters ? judge(interpreter, depth + 1) : std::nullopt;
}

}  // namespace

std::optional<std::string> findProgram(const std::string& name, const std::string& pathVariable,
                                       Refusal& refusal) {
  if (name.find('/') != std::string::npos) {
    if (isProgram(name)) return name;
    refusal = notRunnable(name);
    return std::nullopt;
  }
  refusal = {kExitNotFound, "there is no program '" + name + "' on the PATH"};
  std::istringstream folders(pathVariable);
  for (std::string folder; !name.empty() && std::getline(folders, folder, ':');) {
    const std::string path = (folder.empty() ? "." : folder) + "/" + name;
    if (isProgram(path)) return path;
    struct stat status {};
    if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) refusal = notRunnable(path);
  }
  return std::nullopt;
}

std::optional<Refusal> whyUnmonitored(const std::string& path) {
  return judge(path, 0);
}

}  // namespace qbv::cli
