// doctor: what works here and what happens instead of what does not.
#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/doctor_checks.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/show_json.h"
#include "tools/quibvitalscope/terminal.h"

namespace qbv::cli {
namespace {

struct Options {
  int process = 0;  // 0: the machine
  bool json = false;
};

struct Section {
  std::string title;
  std::vector<Check> checks;
};

using Sections = std::vector<Section>;

Sections sections(int process) {
  if (process != 0) return {{"Process " + std::to_string(process), processChecks(process)}};
  return {{"Stacks", captureChecks()},
          {"Files", fileChecks()},
          {"Desktop", desktopChecks()},
          {"Devices", deviceChecks()},
          {"Programs", toolChecks()}};
}

const char* stateName(Check::State state) {
  constexpr std::array names = {"works", "limited", "missing"};
  return names[static_cast<std::size_t>(state)];
}

std::string colouredState(const Check& check, const Style& style) {
  const std::string name = padded(stateName(check.state), 8);
  if (check.state == Check::State::works) return style.good(name);
  return check.essential ? style.alarm(name) : style.warning(name);
}

void printChecks(const Sections& all, const Style& style) {
  for (const Section& section : all) {
    std::printf("%s\n", style.bold(section.title).c_str());
    for (const Check& check : section.checks) {
      std::printf("  %s %s %s\n", colouredState(check, style).c_str(), padded(check.name, 15).c_str(),
                  printable(check.finding).c_str());
      const std::string blanks(27, ' ');
      std::printf("%s%s\n", blanks.c_str(), style.dim("used for: " + check.purpose).c_str());
      if (!check.fallback.empty()) std::printf("%sinstead: %s\n", blanks.c_str(), check.fallback.c_str());
    }
  }
}

nlohmann::ordered_json checksJson(const Sections& all, bool usable) {
  using Json = nlohmann::ordered_json;
  Json list = Json::array();
  for (const Section& section : all)
    for (const Check& check : section.checks)
      list.push_back({{"name", check.name},
                      {"state", stateName(check.state)},
                      {"essential", check.essential},
                      {"finding", check.finding},
                      {"usedFor", check.purpose},
                      {"fallback", check.fallback.empty() ? Json() : Json(check.fallback)}});
  return {{"usable", usable}, {"checks", std::move(list)}};
}

int doctor(const Options& options) {
  const auto all = sections(options.process);
  const auto broken = [](const Check& check) {
    return check.essential && check.state == Check::State::missing;
  };
  const bool usable = std::none_of(all.begin(), all.end(), [&](const Section& section) {
    return std::any_of(section.checks.begin(), section.checks.end(), broken);
  });
  if (options.json) {
    std::fputs(jsonText(checksJson(all, usable)).c_str(), stdout);
  } else {
    printChecks(all, Style(Style::Mode::automatic));
    std::printf("\n%s\n", usable ? "Everything essential works." : "Something essential is missing.");
  }
  return usable ? 0 : kExitFailure;
}

}  // namespace

void addDoctorCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("doctor", "Tell what this machine allows the monitor to do");
  setHelp(
      *sub, "doctor [OPTIONS]",
      "Looks at what the monitor depends on, on this machine and for this user: for each the state (works, "
      "limited, "
      "missing), what was found, what it is for, and what happens instead when it does not work.");
  sub->add_option("--pid", options->process,
                  "Look at what the monitor works with in this program, which 'run' started")
      ->check(processId())
      ->type_name("PID");
  sub->add_flag("--json", options->json, "Print JSON; its keys are described in the manual page");
  sub->footer("Exit codes: 0 everything essential works, 1 something essential is missing, 2 usage.");
  sub->callback([options, &context] { context.exitCode = doctor(*options); });
}

}  // namespace qbv::cli
