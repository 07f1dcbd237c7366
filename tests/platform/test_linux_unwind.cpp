// Frame by frame beside another witness: the debugger's own backtrace of the same threads.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Addresses = std::vector<std::uint64_t>;

struct Told {
  std::string scene, end;
  int thread = 0;
  Addresses addresses;
};

Addresses readAddresses(std::istream& text) {
  Addresses addresses;
  for (std::uint64_t address = 0; text >> std::hex >> address;) addresses.push_back(address);
  return addresses;
}

Told readTold(const std::string& line) {
  std::istringstream text(line);
  Told told;
  std::string thread;
  std::getline(text, told.scene, ';');
  std::getline(text, thread, ';');
  std::getline(text, told.end, ';');
  told.thread = std::atoi(thread.c_str());
  told.addresses = readAddresses(text);
  return told;
}

// The victim, which stays as it is until this object goes.
class Victim {
 public:
  Victim() {
    int input[2], output[2];
    if (pipe(input) != 0 || pipe(output) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(input[0], 0);
      dup2(output[1], 1);
      for (const int end : {input[0], input[1], output[0], output[1]}) close(end);
      execl(QBV_UNWIND_VICTIM, QBV_UNWIND_VICTIM, nullptr);
      _exit(127);
    }
    close(input[0]);
    close(output[1]);
    input_ = input[1];
    output_ = fdopen(output[0], "r");
  }
  ~Victim() {
    close(input_);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    std::fclose(output_);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  pid_t pid() const { return pid_; }
  // What it found of each scene; empty when it died before it was ready.
  std::vector<Told> scenes() {
    std::vector<Told> all;
    for (std::string line = readLine(output_); !line.empty(); line = readLine(output_)) {
      if (line == "ready") return all;
      all.push_back(readTold(line));
    }
    return {};
  }

  static std::string readLine(FILE* file) {
    std::string line;
    for (int c = std::fgetc(file); c != EOF && c != '\n'; c = std::fgetc(file)) line += static_cast<char>(c);
    return line;
  }

 private:
  pid_t pid_;
  int input_;
  FILE* output_;
};

std::map<int, Addresses> debuggerFrames(pid_t pid) {
  std::map<int, Addresses> frames;
  const std::string command = "gdb -batch -nx -iex 'set debuginfod enabled off' -p " + std::to_string(pid) +
                              " -x " QBV_UNWIND_DEBUGGER_SCRIPT " 2>&1";
  std::string everything;
  FILE* const output = popen(command.c_str(), "r");
  while (std::feof(output) == 0) {
    const std::string line = Victim::readLine(output);
    everything += line + "\n";
    std::istringstream text(line);
    std::string word;
    int thread = 0;
    if (text >> word >> thread && word == "frames") frames[thread] = readAddresses(text);
  }
  pclose(output);
  if (frames.empty()) ADD_FAILURE() << "the debugger says:\n" << everything;
  return frames;
}

std::string inHex(const Addresses& addresses) {
  std::ostringstream text;
  for (const std::uint64_t address : addresses) text << std::hex << address << ' ';
  return text.str();
}

TEST(LinuxUnwind, findsTheSameFramesAsTheDebugger) {
  if (std::system("gdb --version > /dev/null 2>&1") != 0) GTEST_SKIP() << "gdb is not installed";
  Victim victim;
  const std::vector<Told> scenes = victim.scenes();
  ASSERT_GE(scenes.size(), 12U);
  const std::map<int, Addresses> witness = debuggerFrames(victim.pid());
  for (const Told& told : scenes) {
    SCOPED_TRACE(told.scene);
    ASSERT_EQ(witness.count(told.thread), 1U);
    Addresses theirs = witness.at(told.thread);
    ASSERT_GE(theirs.size(), 4U);
    Addresses ours = told.addresses;
    ASSERT_FALSE(ours.empty());
    // A running thread's own address moves; one that is about to repeat its system call stands 2 bytes
    // before.
    const std::uint64_t apart = ours[0] > theirs[0] ? ours[0] - theirs[0] : theirs[0] - ours[0];
    EXPECT_LE(apart, told.scene == "spin" ? 64U : 2U);
    ours[0] = theirs[0] = 0;
    // The debugger takes what lies below the first function of a context for frames.
    if (told.scene == "context") theirs.resize(std::min(theirs.size(), ours.size()));
    EXPECT_EQ(inHex(ours), inHex(theirs));
  }
}

// Whether the walk knows that it is complete, and asks for registers only where no frame could do without.
TEST(LinuxUnwind, walksEverySceneToItsEndAndAsksForRegistersOnlyWhereNeeded) {
  Victim victim;
  const std::vector<Told> scenes = victim.scenes();
  ASSERT_GE(scenes.size(), 12U);
  for (const Told& told : scenes) {
    SCOPED_TRACE(told.scene);
    EXPECT_EQ(told.end, told.scene == "variable frames" ? "outermost after needing registers" : "outermost");
    const std::size_t deep = told.scene == "sort" ? 160 : told.scene == "recursion" ? 152 : 5;
    EXPECT_GE(told.addresses.size(), deep - (told.scene == "context" ? 1U : 0U));
  }
}

}  // namespace
