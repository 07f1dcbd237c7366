// post: posts a notification in a monitored process; dashboard: the one that shows or hides its dashboard.
#include <memory>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/post_values.h"
#include "tools/quibvitalscope/process_link.h"

namespace qbv::cli {
namespace {

struct Options {
  int process = 0;
  std::string name;
  std::vector<std::string> pairs;
};

int post(const Options& options) {
  std::string error;
  const auto userInfo = userInfoFrom(options.pairs, error);
  if (!userInfo) return fail(kExitUsage, error);
  const auto client = linkTo(options.process, error);
  if (!client || !client->post(options.name, *userInfo, error)) return fail(kExitFailure, error);
  return 0;
}

}  // namespace

void addPostCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("post", "Post a notification in a program that 'run' started");
  setHelp(*sub, "post PID NAME [KEY=VALUE...]",
          "Posts a notification in a program that 'run' started, through its control socket, and waits until "
          "its observers "
          "have run. Only the same user may do that.");
  addProcessArgument(*sub, options->process);
  sub->add_option("NAME", options->name, "Name of the notification")->required();
  sub->add_option("KEY=VALUE", options->pairs,
                  "Its user info: true, false, null, numbers and other JSON as such, anything else as text");
  sub->footer(
      "Exit codes: 0 posted, 1 not posted (no such process, not monitored, another user's), 2 usage.\n\n"
      "Examples:\n"
      "  quibvitalscope post 4242 performance_dashboard\n"
      "  quibvitalscope post 4242 user_leaks_detect enable_leaks_detect=true\n"
      "  quibvitalscope post 4242 Noti_LogOut");
  sub->callback([options, &context] {
    options->pairs.insert(options->pairs.end(), context.arguments.begin(), context.arguments.end());
    context.exitCode = post(*options);
  });
}

void addDashboardCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  options->name = "performance_dashboard";
  CLI::App* const sub =
      app.add_subcommand("dashboard", "Show or hide the dashboard of a program that 'run' started");
  setHelp(*sub, "dashboard PID",
          "Shows the memory gauge of a program that 'run' started, or hides it: the same as posting "
          "performance_dashboard.");
  addProcessArgument(*sub, options->process);
  sub->footer("Exit codes: 0 asked, 1 not asked (no such process, not monitored, another user's), 2 usage.");
  sub->callback([options, &context] { context.exitCode = post(*options); });
}

}  // namespace qbv::cli
