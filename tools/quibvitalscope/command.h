// What the commands share: how they are added, how they end, how they complain.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace qbv::cli {

inline constexpr int kExitFailure = 1;        // something could not be done, read or found
inline constexpr int kExitUsage = 2;          // the command line is wrong
inline constexpr int kExitUnmonitored = 125;  // run: the program cannot be monitored
inline constexpr int kExitNotExecutable = 126;
inline constexpr int kExitNotFound = 127;

// Prints "quibvitalscope: " and the sentence on standard error; answers the exit code.
int fail(int exitCode, const std::string& sentence);
void complain(const std::string& sentence);

// Each adds its subcommand, which stores the program's exit code when it has run. `exitCode` outlives the
// app. `arguments` is what stood behind "--" on the command line: kept from the option parser.
struct Context {
  int exitCode = 0;
  bool hasArguments = false;
  std::vector<std::string> arguments;
};
void addRunCommand(CLI::App& app, Context& context);
void addPostCommand(CLI::App& app, Context& context);
void addDashboardCommand(CLI::App& app, Context& context);
void addUploadCommand(CLI::App& app, Context& context);
void addOpenCommand(CLI::App& app, Context& context);
void addLeakCheckCommand(CLI::App& app, Context& context);
void addReportsCommand(CLI::App& app, Context& context);
void addShowCommand(CLI::App& app, Context& context);
void addStacksCommand(CLI::App& app, Context& context);
void addWatchCommand(CLI::App& app, Context& context);
void addProfileCommand(CLI::App& app, Context& context);
void addDoctorCommand(CLI::App& app, Context& context);

}  // namespace qbv::cli
