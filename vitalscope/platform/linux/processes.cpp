#include "vitalscope/platform/processes.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <initializer_list>
#include <optional>
#include <vector>

#include "vitalscope/platform/linux/allowed_tracer.h"
#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/child_environment.h"
#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::linux_backend {
namespace {

// Starts the user's opener in the background and says so when there is none. The shell ends at once, so the
// opener is nobody's child here.
constexpr const char* openerScript =
    "if command -v xdg-open >/dev/null; then xdg-open \"$1\" </dev/null >/dev/null 2>&1 &\n"
    "elif command -v gio >/dev/null; then gio open \"$1\" </dev/null >/dev/null 2>&1 &\n"
    "else echo missing; fi";

class SpawnSettings {
 public:
  SpawnSettings(int standardOutput, short extraFlags) {
    ::posix_spawn_file_actions_init(&actions_);
    ::posix_spawn_file_actions_adddup2(&actions_, standardOutput, STDOUT_FILENO);
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

// Runs bash with these arguments to its end; its output, or nothing when it cannot be started.
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

class LinuxProcesses final : public Processes {
 public:
  std::string run(const std::string& commandLine) override {
    const AllowedTracer allowed;
    return runBash({"/bin/bash", "-c", commandLine}, 0).value_or("");
  }

  void openFile(const std::string& path) override {
    const auto output = runBash({"/bin/bash", "-c", openerScript, "open", path}, POSIX_SPAWN_SETSID);
    if (output == "" || failureLogged_.exchange(true)) return;
    qbv::platform().log.NSLog("QuibVitalscope: cannot open " + path +
                              ": found no program to open files with");
  }

 private:
  std::atomic<bool> failureLogged_{false};
};

}  // namespace

Processes& processes() {
  static auto* const area = new LinuxProcesses;
  return *area;
}

}  // namespace qbv::linux_backend
