#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "tests/platform/temporary_folder.h"
#include "tests/support/commands.h"

namespace {

using qbv::test::contentOf;
using testing::HasSubstr;

class Victim {
 public:
  explicit Victim(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), QBV_SAMPLE_VICTIM);
    child_ = qbv::test::startProgram(std::move(arguments));
  }
  ~Victim() {
    close(child_.input);
    close(child_.output);
    waitpid(child_.process, nullptr, 0);
  }
  pid_t process() const { return child_.process; }

  void becomeAnother() const { EXPECT_EQ(write(child_.input, "x", 1), 1); }

  // How many signals it has counted (modulo 256); -1 when it does not answer.
  int signalsCounted() const {
    unsigned char count = 0;
    if (write(child_.input, "?", 1) != 1 || read(child_.output, &count, 1) != 1) return -1;
    return count;
  }

 private:
  qbv::test::Child child_;
};

pid_t startSample(std::vector<std::string> arguments, const std::string& errors) {
  arguments.insert(arguments.begin(), QBV_SAMPLE);
  const qbv::test::Child sample = qbv::test::startProgram(std::move(arguments), [&] {
    dup2(open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
  });
  close(sample.input);
  close(sample.output);
  return sample.process;
}

int exitCode(pid_t process) {
  int status = 0;
  return waitpid(process, &status, 0) == process && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// False when the sampler ends before.
bool untilTraced(pid_t target, pid_t sampler) {
  const std::string status = "/proc/" + std::to_string(target) + "/status";
  while (contentOf(status).find("TracerPid:\t" + std::to_string(sampler)) == std::string::npos)
    if (waitpid(sampler, nullptr, WNOHANG) != 0) return false;
  return true;
}

class SampleTool : public testing::Test {
 protected:
  std::string file() const { return folder_ / "out.hang"; }
  std::string errors() const { return folder_ / "errors"; }

 private:
  qbv::TemporaryFolder folder_;
};

TEST_F(SampleTool, ShowsTheWaitingFunctionWithItsCallersAndLeavesTheProcessRunning) {
  Victim victim;
  ASSERT_EQ(victim.signalsCounted(), 0);  // it is inside its loop now
  const std::string pid = std::to_string(victim.process());
  ASSERT_EQ(exitCode(startSample({pid, "1", "-file", file()}, errors())), 0) << contentOf(errors());
  const std::string text = contentOf(file());
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
  EXPECT_EQ(exitCode(sampler), 0) << contentOf(errors());
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
  Victim victim({"without"});
  ASSERT_EQ(victim.signalsCounted(), 0);
  ASSERT_EQ(exitCode(startSample({std::to_string(victim.process()), "0.05", "-file", file()}, errors())), 0)
      << contentOf(errors());
  EXPECT_THAT(contentOf(file()), HasSubstr(" w  (in sample_victim)"));
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
  EXPECT_THAT(contentOf(seen ? file() : errors()), HasSubstr("the process executed another program"));
  EXPECT_EQ(victim.signalsCounted(), 0);
}

TEST_F(SampleTool, SaysWhyItCannot) {
  EXPECT_EQ(exitCode(startSample({"1", "-file", file()}, errors())), 2);
  EXPECT_THAT(contentOf(errors()), HasSubstr("usage: sample PID SECONDS -file PATH"));
  EXPECT_EQ(exitCode(startSample({"4194304", "1", "-file", file()}, errors())), 1);
  EXPECT_THAT(contentOf(errors()), HasSubstr("there is no process 4194304"));
  Victim victim;
  EXPECT_EQ(
      exitCode(startSample({std::to_string(victim.process()), "0.01", "-file", "/nowhere/out"}, errors())),
      1);
  EXPECT_THAT(contentOf(errors()), HasSubstr("cannot write /nowhere/out: No such file or directory"));
  const std::string pid = std::to_string(victim.process());
  const pid_t other = startSample({pid, "60", "-file", file()}, errors());
  ASSERT_TRUE(untilTraced(victim.process(), other));
  EXPECT_EQ(exitCode(startSample({pid, "1", "-file", file()}, errors())), 1) << "it is traced already";
  EXPECT_THAT(contentOf(errors()),
              HasSubstr("may not attach to process " + pid + ": Operation not permitted (process " +
                        std::to_string(other) + " traces it)"));
  kill(other, SIGTERM);
  exitCode(other);
  EXPECT_EQ(victim.signalsCounted(), 0);
}

}  // namespace
