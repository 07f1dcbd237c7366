#include "tests/end_to_end/host_process.h"

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace e2e {

namespace fs = std::filesystem;

bool eventually(const std::function<bool()>& holds, double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TemporaryFolder::TemporaryFolder() {
  std::string name = (fs::temp_directory_path() / "quibapp_e2e_XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary folder");
  path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

namespace {

// This process's environment with these entries in place of its own, and with this home or none.
std::vector<std::string> environmentWith(const std::optional<fs::path>& home,
                                         const std::vector<std::string>& variables) {
  std::vector<std::string> result = variables;
  if (home) result.push_back("HOME=" + home->string());
  const auto given = [&](const std::string& entry) {
    const std::string name = entry.substr(0, entry.find('=') + 1);
    return name == "HOME=" ||
           std::any_of(variables.begin(), variables.end(),
                       [&](const std::string& variable) { return variable.starts_with(name); });
  };
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (!given(*entry)) result.emplace_back(*entry);
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

HostProcess::HostProcess(const std::string& executable, const std::vector<std::string>& arguments,
                         const std::optional<fs::path>& home, const std::vector<std::string>& variables)
    : home_(home) {
  signal(SIGPIPE, SIG_IGN);
  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  std::vector<std::string> words{executable};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = environmentWith(home, variables);
  const int error = posix_spawn(&pid_, executable.c_str(), &actions, nullptr, pointers(words).data(),
                                pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  close(input[0]);
  close(output[1]);
  input_ = input[1];
  output_ = output[0];
  if (error != 0) throw std::runtime_error("cannot start " + executable);
}

HostProcess::~HostProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(input_);
  close(output_);
}

void HostProcess::tell(const std::vector<std::string>& commands) {
  for (const std::string& command : commands) {
    const std::string line = command + "\n";
    if (write(input_, line.data(), line.size()) == static_cast<ssize_t>(line.size())) ++awaited_;
  }
}

bool HostProcess::readReply(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (;;) {
    const std::size_t lineEnd = unread_.find('\n');
    if (lineEnd != std::string::npos) {
      const bool done = unread_.starts_with("done ");
      unread_.erase(0, lineEnd + 1);
      if (done) return true;
      continue;
    }
    pollfd entry{output_, POLLIN, 0};
    if (std::chrono::steady_clock::now() > end) return false;
    if (poll(&entry, 1, 100) <= 0) continue;
    char buffer[4096];
    const ssize_t count = read(output_, buffer, sizeof buffer);
    if (count <= 0) return false;
    unread_.append(buffer, static_cast<std::size_t>(count));
  }
}

bool HostProcess::finished() {
  for (; awaited_ > 0; --awaited_)
    if (!readReply(kPatience)) return false;
  return true;
}

int HostProcess::exitStatus() {
  tell({"exit"});
  int status = 0;
  if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<std::string> HostProcess::threadNames() const {
  std::vector<std::string> names;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid_) + "/task")) {
    std::string name = contentOf(task.path() / "comm");
    if (!name.empty()) name.pop_back();
    names.push_back(name);
  }
  return names;
}

fs::path HostProcess::diagnosticRoot() const {
  return home_.value_or("") / "Library/Logs/quibapp/Diagnostic" / std::to_string(pid_);
}

std::vector<fs::path> HostProcess::hangReports(const std::string& level) const {
  std::vector<fs::path> reports;
  std::error_code ignored;
  for (const auto& entry : fs::recursive_directory_iterator(diagnosticRoot() / "freeze" / level, ignored))
    if (entry.path().filename().string().starts_with("quibapp_stuck_")) reports.push_back(entry.path());
  std::sort(reports.begin(), reports.end());
  return reports;
}

fs::path homeFromPasswordDatabase() {
  const passwd* const entry = getpwuid(getuid());
  return entry != nullptr ? entry->pw_dir : "";
}

std::string contentOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> mainThreadBlock(const std::string& report) {
  std::vector<std::string> block;
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    if (block.empty() && !line.starts_with("Thread 0:: Dispatch queue: com.apple.main-thread")) continue;
    if (line.empty()) break;
    block.push_back(line);
  }
  return block;
}

}  // namespace e2e
