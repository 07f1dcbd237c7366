// Stops and resumes all threads of another process by ptrace, without signals of its own reaching it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace tracer {

// One tracer per program run; one thread only. SIGCHLD and the signals that end the program must be blocked
// in it: they are taken with sigtimedwait. If the tracer dies in whatever way, the kernel lets the target go
// and it runs on.
class Tracer {
 public:
  enum class Wait { elapsed, targetEnded, targetExecuted, interrupted };

  explicit Tracer(pid_t process) : process_(process) {}
  ~Tracer() { detach(); }
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

  // Attaches to every thread; none is stopped by that. Empty on success, else a sentence that says why not.
  std::string attach();

  // Stops every thread and answers those that stand still; one that cannot be stopped in time (it is deep in
  // the kernel) is left out. Empty when the process has ended.
  const std::vector<pid_t>& stopAll();
  // How many threads the last stopAll left running.
  std::size_t running() const;
  // Lets every stopped thread run on; signals that arrived meanwhile are delivered.
  void resumeAll();
  // Whether the process has executed another program since attach: what is known of its memory no longer
  // holds.
  bool executed() const { return executed_; }
  // Passes the time until `deadline` serving the target's events, so that it never waits for the tracer.
  Wait serveUntil(std::chrono::steady_clock::time_point deadline);
  // Lets go of all threads. They run on. Waits up to five seconds for one that cannot be stopped, because a
  // thread has to stand still to be let go; the others run on meanwhile.
  void detach();

 private:
  enum class State { running, stopped, groupStopped };

  bool seize(pid_t thread);
  void waitForStop(pid_t thread, std::chrono::steady_clock::time_point deadline);
  void handleEvent(pid_t thread, int status);
  void resume(pid_t thread, State& state);

  pid_t process_;
  std::map<pid_t, State> threads_;
  std::vector<pid_t> stopped_;
  bool executed_ = false;
};

}  // namespace tracer
