// Programs that a test runs, and what they say.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

namespace qbv::test {

// The whole of a file; empty when it cannot be read.
inline std::string contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

inline std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

// As a shell tells it: 128 and the signal for a program that died of one.
inline int exitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

struct Outcome {
  int code = -1;
  std::string output;
  friend bool operator==(const Outcome&, const Outcome&) = default;
  friend void PrintTo(const Outcome& outcome, std::ostream* stream) {
    *stream << outcome.code << ": " << outcome.output;
  }
};

// Runs a line of the shell and takes its standard output; returns when nobody holds that any more.
inline Outcome shell(const std::string& line) {
  Outcome outcome;
  FILE* const pipe = popen(line.c_str(), "r");
  if (pipe == nullptr) return outcome;
  char part[4096];
  for (std::size_t got; (got = std::fread(part, 1, sizeof part, pipe)) > 0;) outcome.output.append(part, got);
  outcome.code = exitCode(pclose(pipe));
  return outcome;
}

// Our ends of the pipes of a program that was started; its errors go where the test's go.
struct Child {
  pid_t process = -1;
  int input = -1;
  int output = -1;
};

// `before` runs in the child.
inline Child startProgram(
    std::vector<std::string> words, const std::function<void()>& before = [] {}) {
  int in[2], out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  const pid_t process = fork();
  if (process == 0) {
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    before();
    execv(pointers[0], pointers.data());
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  return {process, in[1], out[0]};
}

// The next line of a pipe, without its end; empty at the end of all.
inline std::string lineOf(int file) {
  std::string line;
  for (char letter; read(file, &letter, 1) == 1 && letter != '\n';) line += letter;
  return line;
}

}  // namespace qbv::test
