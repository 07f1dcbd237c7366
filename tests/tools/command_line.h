// The program quibvitalscope run as its users run it, in a home folder of its own.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/end_to_end/host_process.h"

extern char** environ;

struct Outcome {
  int code = -1;
  std::string out;
  std::string errors;
};

class CommandLine : public testing::Test {
 protected:
  CommandLine() {
    unsetenv("DISPLAY");
    unsetenv("NO_COLOR");
    setenv("HOME", home_.path().c_str(), 1);
    setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1);
  }

  Outcome command(std::vector<std::string> arguments) const {
    const std::filesystem::path out = home_.path() / "out";
    const std::filesystem::path errors = home_.path() / "errors";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    constexpr int kMode = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), kMode, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errors.c_str(), kMode, 0600);
    arguments.insert(arguments.begin(), COMMAND);
    std::vector<char*> pointers;
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_t child = 0;
    const int failure = posix_spawn(&child, COMMAND, &actions, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    EXPECT_TRUE(failure == 0 && waitpid(child, &status, 0) == child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, e2e::contentOf(out), e2e::contentOf(errors)};
  }

  // Every complaint is one line with the program's name in front.
  void expectRefused(const std::vector<std::string>& arguments, int code, const std::string& reason) const {
    const Outcome outcome = command(arguments);
    EXPECT_EQ(outcome.code, code) << outcome.errors;
    EXPECT_THAT(outcome.errors, testing::StartsWith("quibvitalscope: "));
    EXPECT_THAT(outcome.errors, testing::HasSubstr(reason));
    EXPECT_THAT(outcome.out, testing::IsEmpty());
  }

  std::filesystem::path place(const std::string& belowRoot, const std::string& text) const {
    const std::filesystem::path path = home_.path() / "Library/Logs/quibapp/Diagnostic" / belowRoot;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path) << text;
    return path;
  }
  std::filesystem::path script(const std::string& name, const std::string& text, mode_t mode = 0755) const {
    const std::filesystem::path path = home_.path() / name;
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
    return path;
  }
  e2e::TemporaryFolder home_;
  e2e::TemporaryFolder runtime_;
};
