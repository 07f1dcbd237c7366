// profile: times the message sends of a monitored process's main thread for a while.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/process_link.h"
#include "tools/quibvitalscope/profile_view.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::cli {
namespace {

using linux_backend::Descriptor;

constexpr double kLongest = 86400;

struct Options {
  int process = 0;
  double seconds = 10;
  std::string format = "tree";
  std::string file;
};

// Until the time is over, the user has had enough or the process has ended. The user's signals end the wait
// and not this program, so that the run is ended properly.
class Patience {
 public:
  Patience() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    enough_ = Descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
  }
  // False when the process has ended.
  bool last(double seconds, int process) const {
    using std::chrono::milliseconds, std::chrono::steady_clock;
    const Descriptor ended(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    const auto end =
        steady_clock::now() + std::chrono::ceil<milliseconds>(std::chrono::duration<double>(seconds));
    pollfd awaited[] = {{enough_.get(), POLLIN, 0}, {ended.get(), POLLIN, 0}};
    for (int ready = 0; ready == 0 || (ready < 0 && errno == EINTR);) {
      const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
      if (left <= 0) return true;
      ready = poll(awaited, std::size(awaited), static_cast<int>(left));
    }
    return awaited[1].revents == 0;
  }

 private:
  Descriptor enough_;
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
  if (!patience.last(options.seconds, options.process))
    return fail(kExitFailure,
                "process " + std::to_string(options.process) + " has ended, and the run with it");
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
