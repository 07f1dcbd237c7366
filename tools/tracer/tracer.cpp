#include "tools/tracer/tracer.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>

#include "tools/tracer/process_facts.h"

namespace tracer {

namespace {

// The first number behind a key of a process's or thread's status; nothing when it cannot be read.
std::optional<long> statusNumber(pid_t process, const std::string& wanted) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string key, rest; status >> key && std::getline(status, rest);)
    if (key == wanted) return std::atol(rest.c_str());
  return std::nullopt;
}

std::string whyNot(pid_t process, int error) {
  std::string text = "may not attach to process " + std::to_string(process) + ": " + std::strerror(error);
  int scope = 0;
  if (error == EPERM && std::ifstream("/proc/sys/kernel/yama/ptrace_scope") >> scope && scope > 0)
    text += " (kernel.yama.ptrace_scope is " + std::to_string(scope) + ")";
  const auto other = statusNumber(process, "TracerPid:"), owner = statusNumber(process, "Uid:");
  if (other && *other != 0)
    text += " (process " + std::to_string(*other) + " traces it)";
  else if (geteuid() != 0 && owner && *owner != static_cast<long>(geteuid()))
    text += " (it is another user's)";
  return text;
}

bool isGroupStop(int status) {
  const int signal = WSTOPSIG(status);
  return signal == SIGSTOP || signal == SIGTSTP || signal == SIGTTIN || signal == SIGTTOU;
}

constexpr std::chrono::milliseconds kStopTimeout{200};
constexpr int kDetachRounds = 25;

int eventOf(int status) {
  return status >> 16;
}

}  // namespace

std::string Tracer::attach() {
  if (kill(process_, 0) != 0 && errno == ESRCH) return "there is no process " + std::to_string(process_);
  // A thread may start others while this runs: go round until a pass finds none that is new.
  for (bool found = true; found;) {
    found = false;
    for (const pid_t thread : threadsOf(process_)) {
      if (threads_.contains(thread)) continue;
      if (seize(thread)) {
        found = true;
      } else if (const int error = errno; error != ESRCH && !hasEnded(process_, thread)) {
        return whyNot(process_, error);
      }
    }
  }
  if (!threads_.empty()) return "";
  // The threads of others may be hidden altogether.
  if (kill(process_, 0) != 0 && errno == EPERM) return whyNot(process_, EPERM);
  return "process " + std::to_string(process_) + " has ended";
}

bool Tracer::seize(pid_t thread) {
  if (ptrace(PTRACE_SEIZE, thread, nullptr, PTRACE_O_TRACECLONE | PTRACE_O_TRACEEXEC) != 0) {
    const int error = errno;
    // Attached already: by the kernel, since one that is traced made it, or by an earlier tracer of this
    // program that could not let go of it.
    const bool isOurs = error == EPERM && statusNumber(thread, "TracerPid:") == getpid();
    errno = error;
    if (!isOurs) return false;
  }
  threads_[thread] = State::running;
  return true;
}

const std::vector<pid_t>& Tracer::stopAll() {
  for (const auto& [thread, state] : threads_)
    if (state == State::running) ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr);
  const auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
  // Threads that the kernel attaches meanwhile enter the map while it is walked, and stop by themselves: so
  // by keys.
  for (auto next = threads_.begin(); next != threads_.end();) {
    const pid_t thread = next->first;
    if (next->second == State::running) waitForStop(thread, deadline);
    next = threads_.upper_bound(thread);
  }
  stopped_.clear();
  for (const auto& [thread, state] : threads_)
    if (state != State::running) stopped_.push_back(thread);
  return stopped_;
}

void Tracer::waitForStop(pid_t thread, std::chrono::steady_clock::time_point deadline) {
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  const timespec shortly{0, 1000000};
  while (true) {
    int status = 0;
    const pid_t got = waitpid(thread, &status, __WALL | WNOHANG);
    if (got < 0 || (got == 0 && hasEnded(process_, thread))) {
      threads_.erase(thread);
      return;
    }
    if (got > 0) handleEvent(thread, status);
    const auto found = threads_.find(thread);
    if (found == threads_.end() || found->second != State::running) return;
    if (got == 0) {
      if (std::chrono::steady_clock::now() > deadline) return;
      sigtimedwait(&child, nullptr, &shortly);
    }
  }
}

void Tracer::handleEvent(pid_t thread, int status) {
  if (WIFEXITED(status) || WIFSIGNALED(status)) {
    threads_.erase(thread);
    return;
  }
  if (!WIFSTOPPED(status)) return;
  switch (eventOf(status)) {
    case PTRACE_EVENT_STOP:
      threads_[thread] = isGroupStop(status) ? State::groupStopped : State::stopped;
      break;
    case PTRACE_EVENT_CLONE: {
      unsigned long created = 0;
      if (ptrace(PTRACE_GETEVENTMSG, thread, nullptr, &created) == 0)
        threads_.emplace(static_cast<pid_t>(created), State::running);
      ptrace(PTRACE_CONT, thread, nullptr, nullptr);
      break;
    }
    case PTRACE_EVENT_EXEC:
      executed_ = true;
      ptrace(PTRACE_CONT, thread, nullptr, nullptr);
      break;
    case 0:
      // A signal on its way to the target: hand it on. A stop that was asked for follows by itself.
      ptrace(PTRACE_CONT, thread, nullptr, static_cast<long>(WSTOPSIG(status)));
      break;
    default:
      ptrace(PTRACE_CONT, thread, nullptr, nullptr);
  }
}

void Tracer::resume(pid_t thread, State& state) {
  if (state == State::running) return;
  // A process that its user has stopped stays stopped: it is only listened to.
  ptrace(state == State::groupStopped ? PTRACE_LISTEN : PTRACE_CONT, thread, nullptr, nullptr);
  state = State::running;
}

void Tracer::resumeAll() {
  for (auto& [thread, state] : threads_) resume(thread, state);
}

Tracer::Wait Tracer::serveUntil(std::chrono::steady_clock::time_point deadline) {
  sigset_t awaited;
  sigemptyset(&awaited);
  for (const int signal : {SIGCHLD, SIGINT, SIGTERM, SIGHUP}) sigaddset(&awaited, signal);
  while (true) {
    int status = 0;
    for (pid_t thread = 0; (thread = waitpid(-1, &status, __WALL | WNOHANG)) > 0;) {
      handleEvent(thread, status);
      if (const auto found = threads_.find(thread); found != threads_.end()) resume(thread, found->second);
    }
    if (threads_.empty()) return Wait::targetEnded;
    if (executed_) return Wait::targetExecuted;
    const auto left = deadline - std::chrono::steady_clock::now();
    if (left <= left.zero()) return Wait::elapsed;
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    const timespec timeout{nanoseconds / 1000000000, nanoseconds % 1000000000};
    const int signal = sigtimedwait(&awaited, nullptr, &timeout);
    if (signal == SIGINT || signal == SIGTERM || signal == SIGHUP) return Wait::interrupted;
  }
}

std::size_t Tracer::running() const {
  return threads_.size() - stopped_.size();
}

void Tracer::detach() {
  for (int round = 0; round <= kDetachRounds && !threads_.empty(); ++round) {
    std::erase_if(threads_, [](const auto& entry) {
      return entry.second != State::running && ptrace(PTRACE_DETACH, entry.first, nullptr, nullptr) == 0;
    });
    if (!threads_.empty()) stopAll();
  }
  threads_.clear();
  stopped_.clear();
}

}  // namespace tracer
