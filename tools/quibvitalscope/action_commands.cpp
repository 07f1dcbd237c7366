// upload, open, leak-check: what the user of a monitored program may ask of its monitor.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <utility>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/process_link.h"

namespace qbv::cli {
namespace {

using control::Client;
using std::chrono::seconds;

constexpr seconds kPatience{10};
// The program answers when the tool has ended, and that looks at all of its memory.
constexpr seconds kPatienceForLeaks{600};

struct Options {
  int process = 0;
  bool choose = false;
};

// Looks again and again; false when it does not come true in time.
bool comesTrue(const std::function<bool()>& condition, seconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// A connection and what the program says about itself; the connection is null, with the reason in `error`,
// when it keeps no logs and so does not listen to the wish.
struct Program {
  std::unique_ptr<Client> client;
  Value status;
};
Program reach(int process, std::string& error) {
  Program program{linkTo(process, error), {}};
  if (program.client == nullptr) return program;
  const auto status = program.client->status(error);
  if (!status) program.client = nullptr;
  program.status = status.value_or(Value());
  return program;
}
Program reachLogKeeping(int process, std::string& error) {
  Program program = reach(process, error);
  if (program.client == nullptr || program.status[control::kKeepsLogs].boolValue()) return program;
  error = "process " + std::to_string(process) + " keeps no logs, so there is nothing but its hang reports";
  program.client = nullptr;
  return program;
}

// ---- upload

std::int64_t count(const Value& status, const char* what) {
  return status[control::kUploads][what].longLongValue();
}

int tellUploads(const Value& before, const Value& after) {
  const std::int64_t done = count(after, "done") - count(before, "done");
  const std::int64_t failed = count(after, "failed") - count(before, "failed");
  const std::string* const folder = after[control::kUploads]["to"].string();
  std::printf("%lld folder%s uploaded%s%s\n", static_cast<long long>(done), done == 1 ? "" : "s",
              folder != nullptr ? " to " : "", folder != nullptr ? folder->c_str() : "");
  if (failed > 0)
    return fail(kExitFailure, std::to_string(failed) + " could not be uploaded; the system log says why");
  return 0;
}

int upload(const Options& options) {
  std::string error;
  const auto reached = reach(options.process, error);
  const auto& client = reached.client;
  const Value& before = reached.status;
  if (!client) return fail(kExitFailure, error);
  const std::string process = "process " + std::to_string(options.process);
  if (before[control::kUploads].isNil())
    return fail(kExitFailure,
                process + " was started without --upload-to or --upload-command: nothing is uploaded");
  if (!client->post("quib_user_report_performance_log", {}, error)) return fail(kExitFailure, error);
  Value now = before;
  const auto requested = [&] {
    now = client->status(error).value_or(now);
    return count(now, "requested") > count(before, "requested");
  };
  if (!comesTrue(requested, seconds(3)))
    return fail(kExitFailure, process + " has no hang reports that could be uploaded");
  // The levels are asked for one after the other: the end is there when one more look finds nothing new.
  comesTrue(
      [&, seen = std::int64_t{0}]() mutable {
        now = client->status(error).value_or(now);
        const std::int64_t asked = count(now, "requested");
        return count(now, "done") + count(now, "failed") >= asked && std::exchange(seen, asked) == asked;
      },
      kPatience);
  return tellUploads(before, now);
}

// ---- open

int open(const Options& options) {
  std::string error;
  const auto [client, status] = reachLogKeeping(options.process, error);
  Value userInfo;
  if (options.choose) userInfo = Value::Dictionary{{"subType", "freeze"}};
  if (!client || !client->post("open_diagnostic_folder", userInfo, error)) return fail(kExitFailure, error);
  return 0;
}

// ---- leak-check

std::set<std::string> filesIn(const std::filesystem::path& folder) {
  std::set<std::string> files;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error))
    files.insert(entry->path().string());
  return files;
}

int leakCheck(const Options& options) {
  std::string error;
  const auto [client, status] = reachLogKeeping(options.process, error);
  if (!client) return fail(kExitFailure, error);
  const std::string* const root = status[control::kDiagnosticFolder].string();
  const std::string folder = (root != nullptr ? *root : "") + "/leaks";
  const std::set<std::string> before = filesIn(folder);
  client->setPatience(kPatienceForLeaks);
  if (!client->post("user_leaks_detect", Value::Dictionary{{"enable_leaks_detect", true}}, error) ||
      !client->post("QBV_CMD_CONF_LEAVE_COMPLETE", {}, error))
    return fail(kExitFailure, error);
  std::set<std::string> fresh;
  const auto reported = [&] {
    std::ranges::set_difference(filesIn(folder), before, std::inserter(fresh, fresh.end()));
    return !fresh.empty();
  };
  if (!comesTrue(reported, seconds(3)))
    return fail(
        kExitFailure,
        "no report was made: a program is checked at most once in six hours, and the tool may have failed; "
        "libexec/quibvitalscope/leaks " +
            std::to_string(options.process) + " checks at any time");
  std::printf("%s\n", fresh.rbegin()->c_str());
  return 0;
}

CLI::App* addAction(CLI::App& app, Context& context, const char* name, const char* summary,
                    const std::shared_ptr<Options>& options, int (*action)(const Options&)) {
  CLI::App* const sub = app.add_subcommand(name, summary);
  addProcessArgument(*sub, options->process);
  sub->callback([options, action, &context] { context.exitCode = action(*options); });
  return sub;
}

}  // namespace

void addUploadCommand(CLI::App& app, Context& context) {
  CLI::App* const sub = addAction(app, context, "upload", "Upload a program's hang reports now",
                                  std::make_shared<Options>(), upload);
  setHelp(*sub, "upload PID",
          "Asks for an upload of every level of hang reports that a program which 'run' started has, as its "
          "user's "
          "send button would, and waits for the end. Only a program that was started with --upload-to or "
          "--upload-command uploads anything.");
  sub->footer(
      "Exit codes: 0 uploaded, 1 not (no reports, no consent, a failure), 2 usage.\n\n"
      "Example:\n"
      "  quibvitalscope upload 4242");
}

void addOpenCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = addAction(app, context, "open",
                                  "Open a program's diagnostic folder in the file browser", options, open);
  setHelp(*sub, "open [--choose] PID",
          "Opens the diagnostic folder of a program that 'run' started, in the file browser of the desktop "
          "that the "
          "program runs on.");
  sub->add_flag("--choose", options->choose,
                "Let the user of the program choose a level of hangs, and upload its reports");
  sub->footer(
      "Exit codes: 0 asked for, 1 not (not monitored, keeps no logs), 2 usage.\n\n"
      "Example:\n"
      "  quibvitalscope open 4242");
}

void addLeakCheckCommand(CLI::App& app, Context& context) {
  CLI::App* const sub = addAction(app, context, "leak-check", "Look for leaked memory in a program",
                                  std::make_shared<Options>(), leakCheck);
  setHelp(*sub, "leak-check PID",
          "Allows leak checks in a program that 'run' started and sets one off, as the end of a meeting "
          "would; waits "
          "for it and prints the path of its report, which is also opened with the default application. The "
          "program "
          "stands still for moments meanwhile. At most one check in six hours is made.");
  sub->footer(
      "Exit codes: 0 checked, 1 not (checked before, not monitored, keeps no logs), 2 usage.\n\n"
      "Example:\n"
      "  quibvitalscope leak-check 4242");
}

}  // namespace qbv::cli
