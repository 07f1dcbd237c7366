// run: replaces this process by a program with the monitor and the stand-in host in it.
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>

#include "host/control/protocol.h"
#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/install_place.h"
#include "tools/quibvitalscope/run_target.h"

namespace qbv::cli {
namespace {

struct Options {
  bool noLog = false;
  bool watchRunLoop = false;
  std::optional<std::string> email;
  std::optional<std::string> bundleId;
  std::optional<std::string> version;
  std::optional<std::string> uploadTo;
  std::optional<std::string> uploadCommand;
};

std::vector<std::string> commandOf(const CLI::App& app, const Context& context) {
  std::vector<std::string> command = app.remaining();
  // Behind a program's name, "--" is the program's own.
  if (!command.empty() && context.hasArguments) command.emplace_back("--");
  command.insert(command.end(), context.arguments.begin(), context.arguments.end());
  return command;
}

void setVariable(const char* name, const std::optional<std::string>& value) {
  if (value)
    ::setenv(name, value->c_str(), 1);
  else
    ::unsetenv(name);
}

void setEnvironment(const Options& options, const std::string& library) {
  const char* const others = std::getenv("LD_PRELOAD");
  const bool alone = others == nullptr || *others == '\0';
  setVariable("LD_PRELOAD", alone ? library : library + ":" + others);
  setVariable(control::kTargetVariable, std::to_string(::getpid()));
  setVariable(control::kKeepsLogsVariable, options.noLog ? "0" : "1");
  setVariable(control::kEmailVariable, options.email.value_or("someone@" QBV_MAIL_DOMAIN));
  setVariable(control::kBundleIdVariable, options.bundleId);
  setVariable(control::kVersionVariable, options.version);
  setVariable(control::kWatchRunLoopVariable,
              options.watchRunLoop ? std::optional<std::string>("1") : std::nullopt);
  setVariable(control::kUploadToVariable, options.uploadTo);
  setVariable(control::kUploadCommandVariable, options.uploadCommand);
}

// The program may change its working directory.
Options withAbsoluteOutbox(Options options) {
  std::error_code error;
  if (options.uploadTo)
    options.uploadTo = std::filesystem::absolute(*options.uploadTo, error).lexically_normal();
  return options;
}

int execute(const std::string& path, std::vector<std::string> command) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command) arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  ::execv(path.c_str(), arguments.data());
  const int code = errno == ENOENT ? kExitNotFound : kExitNotExecutable;
  return fail(code, "cannot run " + path + ": " + std::strerror(errno));
}

int run(const Options& options, const std::vector<std::string>& command, bool behindDashes) {
  if (!behindDashes && !command.empty() && command.front().starts_with('-'))
    return fail(kExitUsage,
                "run has no option " + command.front() + "; 'quibvitalscope run --help' lists them");
  if (command.empty()) return fail(kExitUsage, "run needs a command: quibvitalscope run -- COMMAND");
  const std::string library = standInLibrary();
  if (library.empty())
    return fail(kExitUnmonitored,
                "the library " QBV_STANDIN_NAME " is missing: the installation is incomplete");
  if (library.find_first_of(" :") != std::string::npos)
    return fail(kExitUnmonitored,
                "the loader cannot preload from a path with a blank or a colon: " + library);
  const char* const path = std::getenv("PATH");
  Refusal refusal;
  const auto program = findProgram(command.front(), path == nullptr ? "/usr/bin:/bin" : path, refusal);
  if (!program) return fail(refusal.exitCode, refusal.reason);
  if (const auto why = whyUnmonitored(*program)) return fail(why->exitCode, why->reason);
  setEnvironment(withAbsoluteOutbox(options), library);
  return execute(*program, command);
}

}  // namespace

void addRunCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("run", "Run a program under the monitor");
  setHelp(
      *sub, "run [OPTIONS] -- COMMAND [ARGUMENTS...]",
      "Runs a program under the monitor, in this process: id, terminal and exit code are the program's. A "
      "host that "
      "stands in for the application signs a user in as soon as the main loop turns; reports then appear "
      "below "
      "~/Library/Logs/quibapp/Diagnostic/PID. Children of the program are not monitored.");
  sub->add_flag("--no-log", options->noLog, "Behave as a build that keeps no logs: only hangs are watched");
  sub->add_flag(
      "--watch-run-loop", options->watchRunLoop,
      "Log the main thread's stack while a pass of the main loop or an event lasts more than 2 seconds, "
      "or the program uses more than 70 percent of a core");
  sub->add_option("--email", options->email,
                  "E-mail of the signed-in user; monitored are only users of " QBV_MAIL_DOMAIN
                  " (default: someone@" QBV_MAIL_DOMAIN ")")
      ->type_name("ADDRESS");
  sub->add_option("--bundle-id", options->bundleId, "Identifier in reports (default: the program's name)")
      ->type_name("ID");
  sub->add_option("--version", options->version, "Version in reports (default: 0)")->type_name("VERSION");
  auto* const uploadTo = sub->add_option("--upload-to", options->uploadTo,
                                         "Allow uploads: copy the folders that are asked for into this one")
                             ->type_name("DIR");
  sub->add_option(
         "--upload-command", options->uploadCommand,
         "Allow uploads: run this shell command for each folder; it finds the path in UPLOAD_FOLDER, an id "
         "in "
         "UPLOAD_ID and in UPLOAD_BY_USER whether it was asked for once a minute or by a user (1) or after "
         "a report (0)")
      ->excludes(uploadTo)
      ->type_name("COMMAND");
  sub->prefix_command();
  sub->footer(
      "Exit codes: the program's own; 125 it cannot be monitored (statically linked, set-user-ID, 32-bit, "
      "library "
      "missing), 126 it cannot be executed, 127 it was not found, 2 usage.\n\n"
      "Examples:\n"
      "  quibvitalscope run -- gedit notes.txt\n"
      "  quibvitalscope run --no-log --version 4.2 -- ./application --option\n"
      "  quibvitalscope run --upload-to ~/outbox -- gedit");
  sub->callback([options, sub, &context] {
    context.exitCode = run(*options, commandOf(*sub, context), sub->remaining().empty());
  });
}

}  // namespace qbv::cli
