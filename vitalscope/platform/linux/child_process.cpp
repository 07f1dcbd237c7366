#include "vitalscope/platform/linux/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "vitalscope/platform/linux/child_environment.h"
#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::linux_backend {
namespace {

class SpawnSettings {
 public:
  SpawnSettings(int standardOutput, short extraFlags) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawn_file_actions_adddup2(&actions_, standardOutput, STDOUT_FILENO);
    // A viewer that lives on would keep the host's sockets and pipes open.
    ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
    ::posix_spawnattr_init(&attributes_);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::sigfillset(&signals);
    ::sigdelset(&signals, SIGKILL);
    ::sigdelset(&signals, SIGSTOP);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(
        &attributes_, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | extraFlags));
  }
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnSettings(const SpawnSettings&) = delete;
  SpawnSettings& operator=(const SpawnSettings&) = delete;

  const posix_spawn_file_actions_t* actions() const { return &actions_; }
  const posix_spawnattr_t* attributes() const { return &attributes_; }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> list;
  for (std::string& text : texts) list.push_back(text.data());
  list.push_back(nullptr);
  return list;
}

std::string readToEnd(int descriptor) {
  std::string output;
  char buffer[16384];
  for (;;) {
    const ssize_t got = retried([&] { return ::read(descriptor, buffer, sizeof buffer); });
    if (got <= 0) return output;
    output.append(buffer, static_cast<std::size_t>(got));
  }
}

}  // namespace

std::optional<std::string> runBash(std::vector<std::string> arguments, short extraFlags) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const Descriptor reading(ends[0]);
  Descriptor writing(ends[1]);
  std::vector<std::string> environment = childEnvironment(environ, companionToolsFolder());
  const SpawnSettings settings(writing.get(), extraFlags);
  pid_t child = 0;
  if (::posix_spawn(&child, "/bin/bash", settings.actions(), settings.attributes(),
                    pointers(arguments).data(), pointers(environment).data()) != 0) {
    return std::nullopt;
  }
  writing.reset();
  std::string output = readToEnd(reading.get());
  // A host that ignores SIGCHLD or waits for every child leaves nothing to wait for.
  retried([&] { return ::waitpid(child, nullptr, 0); });
  return output;
}

}  // namespace qbv::linux_backend
