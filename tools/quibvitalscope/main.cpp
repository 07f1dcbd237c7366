// quibvitalscope: starts programs under the monitor, talks to them, reads their reports.
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"

namespace qbv::cli {

namespace {

constexpr auto kCommands = {addRunCommand,    addPostCommand,      addDashboardCommand, addUploadCommand,
                            addOpenCommand,   addLeakCheckCommand, addReportsCommand,   addShowCommand,
                            addStacksCommand, addWatchCommand,     addProfileCommand,   addDoctorCommand};

int usageError(const CLI::App& app, const CLI::ParseError& error) {
  std::string command = "quibvitalscope";
  for (const CLI::App* const sub : app.get_subcommands()) command += " " + sub->get_name();
  complain(error.what());
  std::fprintf(stderr, "Try '%s --help'.\n", command.c_str());
  return kExitUsage;
}

int runCommands(CLI::App& app, Context& context, std::vector<std::string> arguments) {
  std::reverse(arguments.begin(), arguments.end());  // the order that the parser takes
  try {
    app.parse(arguments);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() != 0) return usageError(app, error);
    app.exit(error);  // help or version
    return 0;
  }
  if (app.get_subcommands().empty())
    return fail(kExitUsage, "a command is missing; 'quibvitalscope --help' lists them");
  return context.exitCode;
}

}  // namespace
}  // namespace qbv::cli

int main(int argc, char** argv) {
  using namespace qbv::cli;
  CLI::App app("", "quibvitalscope");
  setHelp(app, "[OPTIONS] COMMAND",
          "Starts programs under the performance monitor, talks to them while they run, and reads the "
          "reports they leave.");
  app.set_version_flag("--version", QBV_PROGRAM_VERSION, "Print the version and exit");
  app.set_help_flag("-h,--help", "Print help and exit; COMMAND --help explains a command");
  app.require_subcommand(0, 1);
  app.footer(
      "Examples:\n"
      "  quibvitalscope run -- gedit notes.txt\n"
      "  quibvitalscope reports\n"
      "  quibvitalscope show\n"
      "\nManual: man quibvitalscope");
  Context context;
  for (const auto add : kCommands) add(app, context);
  for (CLI::App* const command : app.get_subcommands({})) command->group("Commands");

  const std::vector<std::string> all(argv + 1, argv + argc);
  const auto dashes = std::find(all.begin(), all.end(), "--");
  context.hasArguments = dashes != all.end();
  if (context.hasArguments) context.arguments.assign(dashes + 1, all.end());
  return runCommands(app, context, {all.begin(), dashes});
}
