// The live view in a real terminal: what it leaves behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

constexpr char kLeave[] = "\033[?7h\033[?25h\033[?1049l";

// The program in a terminal, watching the test. It is not the terminal's owner, since what it shows last
// would be thrown away with it: signals are sent instead of typed.
class TerminalRun {
 public:
  TerminalRun() {
    const std::string process = std::to_string(getpid());
    winsize size{12, 80, 0, 0};
    EXPECT_EQ(openpty(&terminal_, &inside_, nullptr, nullptr, &size), 0);
    child_ = fork();
    if (child_ == 0) {
      for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(inside_, descriptor);
      setenv("TERM", "xterm", 1);
      execl(COMMAND, COMMAND, "watch", process.c_str(), "--interval", "0.1", nullptr);
      _exit(99);
    }
  }
  ~TerminalRun() {
    if (child_ > 0) {
      kill(child_, SIGKILL);
      waitpid(child_, nullptr, 0);
    }
    close(terminal_);
    close(inside_);
  }
  TerminalRun(const TerminalRun&) = delete;
  TerminalRun& operator=(const TerminalRun&) = delete;

  // False when the program ends before it has shown the text.
  bool waitFor(const std::string& text) {
    while (shown.find(text) == std::string::npos) {
      siginfo_t ended{};
      waitid(P_PID, static_cast<id_t>(child_), &ended, WEXITED | WNOHANG | WNOWAIT);
      if (!readFor(100) && ended.si_pid != 0) return false;
    }
    return true;
  }
  void type(const std::string& keys) const {
    EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  void signal(int number) const { kill(child_, number); }
  bool isEchoing() const {
    termios settings{};
    return tcgetattr(terminal_, &settings) == 0 && (settings.c_lflag & ECHO) != 0 &&
           (settings.c_lflag & ICANON) != 0;
  }
  int stateAfterStop() const {
    int status = 0;
    return waitpid(child_, &status, WUNTRACED) == child_ && WIFSTOPPED(status) ? WSTOPSIG(status) : -1;
  }
  int exitCode() {
    int status = 0;
    const bool ended = waitpid(child_, &status, 0) == child_ && WIFEXITED(status);
    child_ = -1;
    while (readFor(0)) {
    }
    return ended ? WEXITSTATUS(status) : -1;
  }

  std::string shown;

 private:
  bool readFor(int milliseconds) {
    pollfd source{terminal_, POLLIN, 0};
    if (poll(&source, 1, milliseconds) <= 0) return false;
    char bytes[4096];
    const ssize_t count = read(terminal_, bytes, sizeof bytes);
    if (count > 0) shown.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  int terminal_ = -1;
  int inside_ = -1;
  pid_t child_ = -1;
};

TEST(WatchTerminal, LeavesTheTerminalAsItWasHoweverItEnds) {
  for (const int end : {0, SIGINT, SIGTERM, SIGHUP}) {
    TerminalRun run;
    ASSERT_TRUE(run.waitFor("threads ")) << run.shown;
    EXPECT_FALSE(run.isEchoing());
    run.type("xyz");
    ASSERT_TRUE(run.waitFor("peak"));
    if (end != 0)
      run.signal(end);
    else
      run.type("q");
    EXPECT_EQ(run.exitCode(), 0) << end;
    EXPECT_THAT(run.shown, EndsWith(kLeave));
    EXPECT_THAT(run.shown, Not(HasSubstr("xyz")));
    EXPECT_TRUE(run.isEchoing()) << end;
  }
}

TEST(WatchTerminal, StopsAndGoesOn) {
  TerminalRun run;
  ASSERT_TRUE(run.waitFor("threads "));
  run.signal(SIGTSTP);
  EXPECT_EQ(run.stateAfterStop(), SIGSTOP);
  EXPECT_TRUE(run.isEchoing());
  ASSERT_TRUE(run.waitFor(kLeave));
  run.shown.clear();
  run.signal(SIGCONT);
  ASSERT_TRUE(run.waitFor("threads "));
  EXPECT_FALSE(run.isEchoing());
  run.type("q");
  EXPECT_EQ(run.exitCode(), 0);
}

}  // namespace
