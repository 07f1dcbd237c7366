// profile: times the message sends of a monitored process's main thread for a while.
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/process_link.h"
#include "tools/quibvitalscope/profile_view.h"
#include "tools/report_reader/diagnostic_folder.h"

namespace qbv::cli {
namespace {

constexpr double kLongest = 86400;

struct Options {
  int process = 0;
  double seconds = 10;
  std::string format = "tree";
  std::string file;
};

// Until the time is over or the user has had enough; the run ends properly either way.
class Patience {
 public:
  Patience() {
    sigemptyset(&signals_);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals_, signal);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
  }
  void last(double seconds) const {
    timespec end{};
    clock_gettime(CLOCK_MONOTONIC, &end);
    const double whole = std::floor(seconds);
    const auto nanoseconds = end.tv_nsec + std::lround((seconds - whole) * 1e9);
    end.tv_sec += static_cast<time_t>(whole) + nanoseconds / 1'000'000'000;
    end.tv_nsec = nanoseconds % 1'000'000'000;
    for (;;) {
      timespec now{};
      clock_gettime(CLOCK_MONOTONIC, &now);
      timespec left{end.tv_sec - now.tv_sec, end.tv_nsec - now.tv_nsec};
      if (left.tv_nsec < 0) left = {left.tv_sec - 1, left.tv_nsec + 1'000'000'000};
      if (left.tv_sec < 0) return;
      if (sigtimedwait(&signals_, nullptr, &left) >= 0 || errno != EINTR) return;
    }
  }

 private:
  sigset_t signals_;
};

std::string rendered(const std::vector<ProfiledCall>& calls, const Options& options) {
  if (options.format == "folded") return profileFolded(calls);
  if (options.format == "speedscope")
    return profileSpeedscope(calls, "process " + std::to_string(options.process));
  return profileTree(calls);
}

int put(const std::string& text, const std::string& file) {
  if (file.empty() || file == "-")
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() ? 0 : kExitFailure;
  std::ofstream out(file, std::ios::binary);
  out << text;
  out.close();
  return out ? 0 : fail(kExitFailure, "cannot write " + file);
}

int profile(const Options& options) {
  if (!(options.seconds > 0) || options.seconds > kLongest)
    return fail(kExitUsage, "--seconds must be above 0 and at most 86400");
  std::string error;
  const Patience patience;
  if (const auto client = linkTo(options.process, error); !client || !client->beginProfile(error))
    return fail(kExitFailure, error);
  if (isatty(STDERR_FILENO) != 0) std::fprintf(stderr, "Recording; Ctrl-C ends it early.\n");
  patience.last(options.seconds);
  // Another connection: one that says nothing for long is closed by the process.
  const auto client = linkTo(options.process, error);
  const auto path = client ? client->endProfile(error) : std::nullopt;
  if (!path) return fail(kExitFailure, error);
  const auto text = reader::readReportFile(*path, error);
  if (!text) return fail(kExitFailure, error);
  const auto calls = parseProfile(*text, error);
  if (!calls) return fail(kExitFailure, *path + " " + error);
  if (calls->empty()) complain("no call took longer than 100 ms");
  return put(rendered(*calls, options), options.file);
}

}  // namespace

void addProfileCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub =
      app.add_subcommand("profile", "Time the main thread's message sends in a program that 'run' started");
  setHelp(
      *sub, "profile [OPTIONS] PID",
      "Records for some seconds which message sends of the main thread take longer than 100 ms, in a "
      "program that 'run' started, and shows them as a tree or writes a file for a viewer of flame graphs.");
  addProcessArgument(*sub, options->process);
  sub->add_option("--seconds", options->seconds, "How long to record (default: 10)")->type_name("N");
  sub->add_option("--format", options->format,
                  "tree (the default), folded (one line a stack), or speedscope (its JSON)")
      ->check(oneOf({"tree", "folded", "speedscope"}))
      ->type_name("FORMAT");
  sub->add_option("-o,--output", options->file, "Write to this file instead of standard output")
      ->type_name("FILE");
  sub->footer(
      "Exit codes: 0 recorded, 1 not recorded (no such process, not monitored, another run is on) or not "
      "written, 2 usage.\n\n"
      "Examples:\n"
      "  quibvitalscope profile 4242\n"
      "  quibvitalscope profile 4242 --seconds 30 --format speedscope -o calls.speedscope.json");
  sub->callback([options, &context] { context.exitCode = profile(*options); });
}

}  // namespace qbv::cli
