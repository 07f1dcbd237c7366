#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "tools/quibvitalscope/doctor_checks.h"
#include "tools/tracer/process_facts.h"

namespace qbv::cli {
namespace {

using State = Check::State;

// A thread that stays in a blocking read while it lives.
class BlockedThread {
 public:
  BlockedThread() {
    if (::pipe(pipe_) != 0) return;
    thread_ = std::thread([this] {
      id_ = static_cast<pid_t>(::syscall(SYS_gettid));
      char byte;
      while (::read(pipe_[0], &byte, 1) < 0 && errno == EINTR) continue;
    });
    while (id_ == 0) std::this_thread::yield();
  }
  ~BlockedThread() {
    if (!thread_.joinable()) return;
    ::close(pipe_[1]);
    thread_.join();
    ::close(pipe_[0]);
  }
  BlockedThread(const BlockedThread&) = delete;
  BlockedThread& operator=(const BlockedThread&) = delete;
  pid_t id() const { return id_; }

 private:
  int pipe_[2] = {-1, -1};
  std::atomic<pid_t> id_{0};
  std::thread thread_;
};

Check threadFile() {
  Check check{
      "thread-file", State::missing, false, "", "stacks of waiting threads without disturbing them", ""};
  const BlockedThread thread;
  const std::string path = "/proc/self/task/" + std::to_string(thread.id()) + "/syscall";
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  std::string line = tracer::firstLine(path);
  while (line.starts_with("running") && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    line = tracer::firstLine(path);
  }
  const bool works = line.starts_with(std::to_string(SYS_read) + " 0x");
  check.state = works ? State::works : State::limited;
  check.finding = works ? "/proc/self/task/*/syscall tells where a waiting thread is"
                        : "/proc/self/task/*/syscall does not tell where a thread is";
  if (!works)
    check.fallback = "every thread is signalled; calls such as poll and nanosleep then end early with EINTR";
  return check;
}

Check memoryRead() {
  Check check{"memory-read",
              State::works,
              false,
              "process_vm_readv reads this process",
              "stacks and images, without faults",
              ""};
  long from = 4711;
  long to = 0;
  iovec local{&to, sizeof to};
  iovec remote{&from, sizeof from};
  if (::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) == sizeof to && to == from) return check;
  check.state = State::limited;
  check.finding = std::string("process_vm_readv fails: ") + std::strerror(errno);
  check.fallback = "memory is read through a pipe, which is slower";
  return check;
}

Check reservedSignal() {
  Check check{"signal", State::limited, false, "", "stacks of running threads", ""};
  for (int number = SIGRTMAX; number >= SIGRTMIN; --number) {
    struct sigaction action {};
    if (::sigaction(number, nullptr, &action) != 0 || action.sa_handler != SIG_DFL) continue;
    check.state = State::works;
    check.finding = "real-time signal " + std::to_string(number) + " is free";
    return check;
  }
  check.finding = "no real-time signal is free";
  check.fallback = "one is shared with its own handler, which still gets every signal that is not ours";
  return check;
}

Check tracing() {
  Check check{"ptrace", State::works, false, "", "call samples and leak checks by the companion tools", ""};
  const std::string scope = tracer::firstLine("/proc/sys/kernel/yama/ptrace_scope");
  if (scope.empty() || scope == "0") {
    check.finding = scope.empty() ? "not restricted (no Yama)" : "scope 0: not restricted";
  } else if (scope == "1") {
    check.finding = "scope 1: the monitored process names its tool as tracer";
  } else {
    const bool administrator = scope == "2" && ::geteuid() == 0;
    check.state = administrator ? State::works : State::missing;
    check.finding = "scope " + scope + (scope == "2" ? ": only for administrators" : ": forbidden to all");
    if (!administrator) check.fallback = "no call samples beside hang reports, no leak checks";
  }
  return check;
}

Check stackLimit() {
  constexpr rlim_t kPlenty = rlim_t{64} << 20;
  Check check{"stack-limit", State::works, false, "", "how much of a stack is copied at most", ""};
  rlimit limit{};
  ::getrlimit(RLIMIT_STACK, &limit);
  if (limit.rlim_cur == RLIM_INFINITY) {
    check.finding = "unlimited";
  } else {
    check.finding =
        std::to_string(limit.rlim_cur >> 10) + " KiB" + (limit.rlim_cur > kPlenty ? ", large" : "");
  }
  return check;
}

}  // namespace

std::vector<Check> captureChecks() {
  return {threadFile(), memoryRead(), reservedSignal(), tracing(), stackLimit()};
}

}  // namespace qbv::cli
