// watch: the live picture of a monitored process, in a terminal or line by line.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/live_screen.h"
#include "tools/quibvitalscope/watch_process.h"
#include "tools/quibvitalscope/watch_view.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/tracer/process_facts.h"

namespace qbv::cli {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr double kMegabyte = 1024.0 * 1024.0;
constexpr std::size_t kMostReports = 50;

struct Options {
  std::uint32_t process = 0;
  double interval = 1;
  bool once = false;
};

// Block characters need a terminal that reads UTF-8.
bool isPlainTerminal() {
  for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* const value = std::getenv(name);
    if (value == nullptr || *value == '\0') continue;
    const std::string_view locale = value;
    return locale.find("UTF-8") == std::string_view::npos && locale.find("utf8") == std::string_view::npos;
  }
  return true;
}

// Takes one reading a tick; the first only begins the measuring of CPU use.
class Watch {
 public:
  explicit Watch(const Options& options) : findings_(reader::diagnosticRoot(), options.process) {
    state_.process = options.process;
    before_ = readProcess(options.process);
    at_ = Clock::now();
  }

  bool begun() const { return before_.has_value(); }

  // False when the process has ended.
  bool tick() {
    const auto reading = readProcess(state_.process);
    const auto now = Clock::now();
    if (!reading || reading->startTicks != before_->startTicks) return false;
    const double seconds = std::chrono::duration_cast<Seconds>(now - at_).count();
    state_.time = tracer::localDate();
    state_.name = reading->name;
    state_.ageSeconds = age(*reading);
    state_.threads = reading->threads;
    state_.memory.add(static_cast<double>(reading->footprintBytes) / kMegabyte);
    state_.cpu.add(cpuPercent(*before_, *reading, seconds, clockTicksPerSecond()));
    state_.findings = findings_.read(kMostReports);
    before_ = reading;
    at_ = now;
    return true;
  }

  const WatchState& state() const { return state_; }

 private:
  FindingsReader findings_;
  WatchState state_;
  std::optional<ProcessReading> before_;
  Clock::time_point at_;
};

// Until the program is to end: 0; when the process has: a last word.
int watchLive(Watch& watch, const Options& options, bool isDrawn) {
  const Style style(Style::Mode::automatic);
  const bool plain = isPlainTerminal();
  LiveScreen screen(isDrawn);
  const auto step = std::chrono::duration_cast<Clock::duration>(Seconds(options.interval));
  const auto show = [&] { screen.draw(watchLines(watch.state(), screen.rows(), plain, style)); };
  auto next = Clock::now() + step;
  if (isDrawn) {
    if (!watch.tick()) return 0;
    show();
  }
  for (;;) {
    const LiveScreen::Event event = screen.wait(next);
    if (event == LiveScreen::Event::quit) return 0;
    if (event == LiveScreen::Event::redraw) {
      if (isDrawn) show();
      continue;
    }
    next = std::max(next + step, Clock::now());
    if (!watch.tick()) return kExitFailure;
    if (isDrawn) {
      show();
    } else {
      std::printf("%s\n", watchLine(watch.state()).c_str());
      if (std::fflush(stdout) != 0) return 0;
    }
    if (options.once) return 0;
  }
}

int watch(const Options& options) {
  Watch watch(options);
  const std::string process = "process " + std::to_string(options.process);
  if (!watch.begun()) return fail(kExitFailure, "there is no " + process);
  const bool isDrawn = ::isatty(STDOUT_FILENO) != 0 && !options.once;
  if (watchLive(watch, options, isDrawn) == 0) return 0;
  // Who waits for a line got none; who looked on has seen it all.
  std::fflush(stdout);
  complain(process + " has ended");
  return options.once ? kExitFailure : 0;
}

}  // namespace

void addWatchCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("watch", "Watch a process's memory, CPU use, hangs and reports");
  setHelp(*sub, "watch [OPTIONS] PID",
          "Shows a running process once a second: memory and CPU use with the last minute's course, seconds "
          "of hanging by level, and the newest reports. On a terminal as a picture that ends with q or "
          "Ctrl-C; elsewhere as one line a second.");
  sub->add_option("PID", options->process, "The process")->required()->check(processId());
  sub->add_option("--interval", options->interval, "Seconds between two looks (default 1)")
      ->check(CLI::Range(0.1, 3600.0))
      ->type_name("SECONDS");
  sub->add_flag("--once", options->once, "Print one line after one interval, then exit");
  sub->footer(
      "Exit codes: 0, also when the process ends meanwhile; 1 there is no such process, or it ended before "
      "--once had a line; 2 usage.\n\n"
      "Examples:\n"
      "  quibvitalscope watch $(pidof gedit)\n"
      "  quibvitalscope watch 4242 --interval 10 >> 4242.log");
  sub->callback([options, &context] { context.exitCode = watch(*options); });
}

}  // namespace qbv::cli
