#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/commands.h"

namespace {

using qbv::test::Child;
using qbv::test::lineOf;
using qbv::test::startProgram;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using Addresses = std::set<std::uint64_t>;

std::string readAll(int file) {
  std::string text;
  char part[4096];
  for (ssize_t got; (got = read(file, part, sizeof part)) > 0;)
    text.append(part, static_cast<std::size_t>(got));
  close(file);
  return text;
}

class Victim {
 public:
  explicit Victim(std::vector<std::string> arguments, const std::string& program = QBV_LEAKS_VICTIM) {
    arguments.insert(arguments.begin(), program);
    child_ = startProgram(arguments);
    std::string line;
    while ((line = lineOf(child_.output)) != "ready") {
      if (line.empty()) std::abort();
      lost_.insert(std::stoull(line.substr(5), nullptr, 16));
    }
  }
  ~Victim() {
    close(child_.input);
    close(child_.output);
    waitpid(child_.process, nullptr, 0);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  pid_t process() const { return child_.process; }
  const Addresses& lost() const { return lost_; }
  bool isAlive() const { return write(child_.input, "?", 1) == 1 && lineOf(child_.output) == "alive"; }

 private:
  Child child_;
  Addresses lost_;
};

struct Outcome {
  int code = -1;
  std::string text;
  std::string errors;
  Addresses found;
};

Outcome check(
    const std::string& process, const std::function<void()>& before = [] {}) {
  int errors[2];
  if (pipe2(errors, O_CLOEXEC) != 0) std::abort();
  const Child tool = startProgram({QBV_LEAKS, "--all", process}, [&] {
    dup2(errors[1], STDERR_FILENO);
    before();
  });
  close(errors[1]);
  close(tool.input);
  Outcome outcome;
  outcome.text = readAll(tool.output);
  outcome.errors = readAll(errors[0]);
  int status = 0;
  waitpid(tool.process, &status, 0);
  if (WIFEXITED(status)) outcome.code = WEXITSTATUS(status);
  std::istringstream lines(outcome.text);
  for (std::string line; std::getline(lines, line);)
    if (line.starts_with("0x")) outcome.found.insert(std::stoull(line, nullptr, 16));
  return outcome;
}

Outcome check(const Victim& victim) {
  Outcome outcome = check(std::to_string(victim.process()));
  EXPECT_TRUE(victim.isAlive());
  return outcome;
}

Addresses difference(const Addresses& all, const Addresses& without) {
  Addresses rest;
  std::set_difference(all.begin(), all.end(), without.begin(), without.end(),
                      std::inserter(rest, rest.end()));
  return rest;
}

TEST(LeaksTool, FindsAThousandAmongAHundredThousandBlocksOfFourThreads) {
  const Victim victim({"many"});
  ASSERT_EQ(victim.lost().size(), 1000u);
  const Outcome outcome = check(victim);
  ASSERT_EQ(outcome.code, 0) << outcome.errors;
  const std::size_t missed = difference(victim.lost(), outcome.found).size();
  const std::size_t wrong = difference(outcome.found, victim.lost()).size();
  RecordProperty("missed", static_cast<int>(missed));
  RecordProperty("wrong", static_cast<int>(wrong));
  EXPECT_LE(missed, 50u);
  EXPECT_LE(wrong * 100, outcome.found.size());
  EXPECT_THAT(outcome.text, HasSubstr("leaks_victim [" + std::to_string(victim.process()) + "]\n"));
  EXPECT_THAT(outcome.text, ContainsRegex("\n" + std::to_string(outcome.found.size()) +
                                          " leaks for [0-9]+ total leaked bytes.\n"));
}

TEST(LeaksTool, TakesNoFreedBlockForALostOne) {
  const Outcome outcome = check(Victim({"frees"}));
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_THAT(outcome.text, HasSubstr("\n0 leaks for 0 total leaked bytes.\n"));
}

TEST(LeaksTool, FindsEveryKindOfBlockAndTheStructuresTheyMake) {
  const Victim odd({"odd"});
  EXPECT_EQ(check(odd).found, odd.lost());
  const Victim structures({"structures"});
  const Outcome outcome = check(structures);
  EXPECT_EQ(outcome.found, structures.lost());
  EXPECT_THAT(outcome.text, HasSubstr("56 bytes, holds 3 more blocks of 168 bytes"));
  EXPECT_THAT(outcome.text, HasSubstr("56 bytes, holds 2 more blocks of 112 bytes"));
  EXPECT_THAT(outcome.text, HasSubstr("head of |"));
  EXPECT_THAT(outcome.text, HasSubstr("  vtable for (anonymous namespace)::Drawing\n"));
}

TEST(LeaksTool, SeesPointersInRegistersAndThreadLocalStorage) {
  const Outcome outcome = check(Victim({"held"}));
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_THAT(outcome.found, IsEmpty());
}

TEST(LeaksTool, IgnoresTheStacksOfThreadsThatHaveEnded) {
  const Victim victim({"ended"});
  const Outcome outcome = check(victim);
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_LE(difference(victim.lost(), outcome.found).size(), 20u);
  EXPECT_THAT(difference(outcome.found, victim.lost()), IsEmpty());
}

TEST(LeaksTool, WalksOnBehindMemoryThatTheProgramTookFromTheSystem) {
  const Victim victim({"break"});
  EXPECT_EQ(check(victim).found, victim.lost());
}

TEST(LeaksTool, WaitsUntilNoThreadIsInsideTheAllocator) {
  const Victim victim({"busy"});
  for (int i = 0; i < 3; ++i) {
    const Outcome outcome = check(victim);
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
    EXPECT_THAT(outcome.found, IsEmpty());
  }
}

TEST(LeaksTool, KeepsUpWithThreadsThatStartAndEnd) {
  const Victim victim({"starts"});
  for (int i = 0; i < 10; ++i) {
    const Outcome outcome = check(victim);
    EXPECT_EQ(outcome.code, 0) << outcome.errors;
  }
}

TEST(LeaksTool, TheProcessRunsOnWheneverTheToolIsKilled) {
  const Victim victim({"few"});
  for (int delay = 0; delay < 40; ++delay) {
    const Child tool = startProgram({QBV_LEAKS, std::to_string(victim.process())});
    std::this_thread::sleep_for(std::chrono::microseconds(500 * delay));
    kill(tool.process, SIGKILL);
    for (const int file : {tool.input, tool.output}) close(file);
    waitpid(tool.process, nullptr, 0);
    ASSERT_TRUE(victim.isAlive()) << delay;
  }
  EXPECT_EQ(check(victim).code, 0);
}

TEST(LeaksTool, ReadsAProcessWhoseFirstThreadHasEnded) {
  const Victim victim({"headless"});
  const Outcome outcome = check(victim);
  EXPECT_EQ(outcome.code, 0) << outcome.errors;
  EXPECT_LE(difference(victim.lost(), outcome.found).size(), 8u);
  EXPECT_THAT(difference(outcome.found, victim.lost()), IsEmpty());
}

TEST(LeaksTool, RefusesTheHeapOfAnotherAllocator) {
  const Victim victim({}, QBV_LEAKS_FOREIGN_VICTIM);
  const Outcome outcome = check(victim);
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.text, "");
  EXPECT_THAT(outcome.errors, HasSubstr("the program has another allocator"));
}

TEST(LeaksTool, SaysWhyItCannot) {
  Outcome outcome = check("nobody");
  EXPECT_EQ(outcome.code, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("usage: leaks [--all] PID"));
  outcome = check("4194304");
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("there is no process 4194304"));
  const pid_t ended = fork();
  if (ended == 0) _exit(0);
  siginfo_t ending;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(ended), &ending, WEXITED | WNOWAIT), 0);
  outcome = check(std::to_string(ended));
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.errors, HasSubstr("process " + std::to_string(ended) + " has ended"));
  waitpid(ended, nullptr, 0);
}

#if defined(QBV_SANITIZED)
TEST(LeaksTool, NamesTheSanitizerWhoseHeapItCannotRead) {
  const Outcome outcome = check(std::to_string(getpid()));
  EXPECT_EQ(outcome.code, 1);
  EXPECT_EQ(outcome.text, "");
  EXPECT_THAT(outcome.errors, HasSubstr("not recognised"));
}
#endif

TEST(LeaksTool, MayNotReadAnotherUsersProcess) {
  constexpr uid_t kNobody = 65534;
  // Whoever is no superuser has the first process for another user's.
  const bool isSuper = geteuid() == 0;
  const Outcome outcome = check(std::to_string(isSuper ? getpid() : 1), [=] {
    if (isSuper && setuid(kNobody) != 0) _exit(126);
  });
  if (outcome.code == 127) GTEST_SKIP() << "the other user may not enter the folder of the build";
  EXPECT_EQ(outcome.code, 1);
  EXPECT_THAT(outcome.errors, ContainsRegex("may not attach to process [0-9]+: Operation not permitted"));
}

}  // namespace
