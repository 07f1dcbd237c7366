// Programs to look at from outside, and the debugger as a witness of their stacks. QBV_UNWIND_DEBUGGER_SCRIPT
// names the script that the debugger runs.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace qbv::test {

using Addresses = std::vector<std::uint64_t>;

inline Addresses readAddresses(std::istream& text) {
  Addresses addresses;
  for (std::uint64_t address = 0; text >> std::hex >> address;) addresses.push_back(address);
  return addresses;
}

// A program that stays as it is until this object goes.
class Victim {
 public:
  explicit Victim(std::vector<std::string> command) {
    int input[2], output[2];
    if (pipe(input) != 0 || pipe(output) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
      dup2(input[0], 0);
      dup2(output[1], 1);
      for (const int end : {input[0], input[1], output[0], output[1]}) close(end);
      std::vector<char*> words;
      for (std::string& word : command) words.push_back(word.data());
      words.push_back(nullptr);
      execv(words[0], words.data());
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
  // What it says before it says "ready"; nothing when it ends instead.
  std::vector<std::string> linesUntilReady() {
    std::vector<std::string> all;
    for (std::string line = readLine(output_); !line.empty(); line = readLine(output_)) {
      if (line == "ready") return all;
      all.push_back(line);
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

inline bool debuggerIsInstalled() {
  return std::system("gdb --version > /dev/null 2>&1") == 0;
}

// The frames of each thread of a process, innermost first, as the debugger sees them.
inline std::map<int, Addresses> debuggerFrames(pid_t pid) {
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

inline std::string inHex(const Addresses& addresses) {
  std::ostringstream text;
  for (const std::uint64_t address : addresses) text << std::hex << address << ' ';
  return text.str();
}

}  // namespace qbv::test
