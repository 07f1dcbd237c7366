#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using testing::HasSubstr;

class Victim {
 public:
  explicit Victim(char* argument = nullptr) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::string path = QBV_SAMPLE_VICTIM;
    char* const arguments[] = {path.data(), argument, nullptr};
    if (posix_spawn(&process_, path.c_str(), &actions, nullptr, arguments, environ) != 0) std::abort();
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    request_ = in[1];
    answer_ = out[0];
  }
  ~Victim() {
    close(request_);
    close(answer_);
    waitpid(process_, nullptr, 0);
  }
  pid_t process() const { return process_; }

  void becomeAnother() const { EXPECT_EQ(write(request_, "x", 1), 1); }

  // How many signals it has counted (modulo 256); -1 when it does not answer.
  int signalsCounted() const {
    unsigned char count = 0;
    if (write(request_, "?", 1) != 1 || read(answer_, &count, 1) != 1) return -1;
    return count;
  }

 private:
  pid_t process_ = 0;
  int request_ = -1;
  int answer_ = -1;
};

pid_t startSample(std::vector<std::string> arguments, const std::string& errors) {
  arguments.insert(arguments.begin(), QBV_SAMPLE);
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  pid_t process = -1;
  EXPECT_EQ(posix_spawn(&process, QBV_SAMPLE, &actions, nullptr, pointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  return process;
}

int exitCode(pid_t process) {
  int status = 0;
  return waitpid(process, &status, 0) == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string content(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// False when the sampler ends before.
bool untilTraced(pid_t target, pid_t sampler) {
  const std::string status = "/proc/" + std::to_string(target) + "/status";
  while (content(status).find("TracerPid:\t" + std::to_string(sampler)) == std::string::npos)
    if (waitpid(sampler, nullptr, WNOHANG) != 0) return false;
  return true;
}

class SampleTool : public testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(folder_.data()), nullptr); }
  void TearDown() override {
    unlink(file().c_str());
    unlink(errors().c_str());
    rmdir(folder_.c_str());
  }
  std::string file() const { return folder_ + "/out.hang"; }
  std::string errors() const { return folder_ + "/errors"; }

 private:
  std::string folder_ = "/tmp/quibsampleXXXXXX";
};

TEST_F(SampleTool, ShowsTheWaitingFunctionWithItsCallersAndLeavesTheProcessRunning) {
  Victim victim;
  ASSERT_EQ(victim.signalsCounted(), 0);  // it is inside its loop now
  const std::string pid = std::to_string(victim.process());
  ASSERT_EQ(exitCode(startSample({pid, "1", "-file", file()}, errors())), 0) << content(errors());
  const std::string text = content(file());
  EXPECT_THAT(text, HasSubstr("[" + pid + "]"));
  EXPECT_THAT(text,
              testing::ContainsRegex(
                  "serveRequests  \\(in sample_victim\\)\n +[0-9]+ waitForRequest  \\(in sample_victim\\)"));
  EXPECT_THAT(text, HasSubstr("spinForEver"));
  EXPECT_THAT(text, HasSubstr("called from waitForRequest"));
  struct stat facts {};
  ASSERT_EQ(stat(file().c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 0777, 0600u);
  EXPECT_EQ(victim.signalsCounted(), 0);
}

TEST_F(SampleTool, PassesTheTargetsSignalsOn) {
  Victim victim;
  ASSERT_EQ(victim.signalsCounted(), 0);
  const pid_t sampler = startSample({std::to_string(victim.process()), "1", "-file", file()}, errors());
  int counted = 0;
  for (int sent = 1; sent <= 100; ++sent) {
    ASSERT_EQ(kill(victim.process(), SIGUSR1), 0);
    do {
      counted = victim.signalsCounted();
      ASSERT_GE(counted, 0);
    } while (counted < sent);
  }
  EXPECT_EQ(exitCode(sampler), 0) << content(errors());
  EXPECT_EQ(counted, 100);
}

TEST_F(SampleTool, TargetRunsOnWhenTheToolIsKilled) {
  Victim victim;
  ASSERT_EQ(victim.signalsCounted(), 0);
  const pid_t sampler = startSample({std::to_string(victim.process()), "60", "-file", file()}, errors());
  ASSERT_TRUE(untilTraced(victim.process(), sampler));
  kill(sampler, SIGKILL);
  ASSERT_EQ(exitCode(sampler), -1);
  EXPECT_EQ(victim.signalsCounted(), 0);
}

TEST_F(SampleTool, FirstThreadMayHaveEnded) {
  char argument[] = "without";
  Victim victim(argument);
  ASSERT_EQ(victim.signalsCounted(), 0);
  ASSERT_EQ(exitCode(startSample({std::to_string(victim.process()), "0.05", "-file", file()}, errors())), 0)
      << content(errors());
  EXPECT_THAT(content(file()), HasSubstr(" w  (in sample_victim)"));
  EXPECT_EQ(victim.signalsCounted(), 0);
}

TEST_F(SampleTool, EndsWhenTheTargetBecomesAnotherProgram) {
  Victim victim;
  ASSERT_EQ(victim.signalsCounted(), 0);
  const pid_t sampler = startSample({std::to_string(victim.process()), "60", "-file", file()}, errors());
  ASSERT_TRUE(untilTraced(victim.process(), sampler));
  victim.becomeAnother();
  EXPECT_EQ(victim.signalsCounted(), 0);
  // It may have done so before anything was seen.
  const bool seen = exitCode(sampler) == 0;
  EXPECT_THAT(content(seen ? file() : errors()), HasSubstr("the process executed another program"));
  EXPECT_EQ(victim.signalsCounted(), 0);
}

TEST_F(SampleTool, SaysWhyItCannot) {
  EXPECT_EQ(exitCode(startSample({"1", "-file", file()}, errors())), 2);
  EXPECT_THAT(content(errors()), HasSubstr("usage: sample PID SECONDS -file PATH"));
  EXPECT_EQ(exitCode(startSample({"4194304", "1", "-file", file()}, errors())), 1);
  EXPECT_THAT(content(errors()), HasSubstr("there is no process 4194304"));
  Victim victim;
  EXPECT_EQ(
      exitCode(startSample({std::to_string(victim.process()), "0.01", "-file", "/nowhere/out"}, errors())),
      1);
  EXPECT_THAT(content(errors()), HasSubstr("cannot write /nowhere/out: No such file or directory"));
  const std::string pid = std::to_string(victim.process());
  const pid_t other = startSample({pid, "60", "-file", file()}, errors());
  ASSERT_TRUE(untilTraced(victim.process(), other));
  EXPECT_EQ(exitCode(startSample({pid, "1", "-file", file()}, errors())), 1) << "it is traced already";
  EXPECT_THAT(content(errors()),
              HasSubstr("may not attach to process " + pid + ": Operation not permitted (process " +
                        std::to_string(other) + " traces it)"));
  kill(other, SIGTERM);
  exitCode(other);
  EXPECT_EQ(victim.signalsCounted(), 0);
}

}  // namespace
