// show: one report, readable.
#include <sys/stat.h>

#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/show_json.h"
#include "tools/quibvitalscope/show_text.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/report_reader/parse.h"

namespace qbv::cli {
namespace {

struct Options {
  std::string file;
  bool json = false;
  std::string colour = "auto";
};

Style::Mode modeNamed(const std::string& name) {
  if (name == "always") return Style::Mode::always;
  return name == "never" ? Style::Mode::never : Style::Mode::automatic;
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

// The named file, also below the diagnostic folder as 'reports' prints it; without a name the newest report.
// "" when there is no report at all.
std::string chosenFile(const std::string& name) {
  const std::string root = reader::diagnosticRoot();
  if (!name.empty()) {
    const std::string below = root + "/" + name;
    return !exists(name) && !root.empty() && name.front() != '/' && exists(below) ? below : name;
  }
  std::vector<std::string> errors;
  for (const auto& file : reader::listDiagnosticFiles(root, std::nullopt, errors))
    if (reader::isReportKind(file.kind)) return file.path;
  return "";
}

int showOther(const std::string& path, const std::string& text, bool json) {
  const bool ours = reader::textKind(text) == reader::TextKind::sample;
  if (!ours) return fail(kExitFailure, path + " is no report" + (text.empty() ? ": it is empty" : ""));
  if (json) return fail(kExitFailure, path + " is a call sample, which is plain text only");
  std::string line;
  for (const char c : text) {
    if (c != '\n') {
      line += c;
      continue;
    }
    std::printf("%s\n", printable(line).c_str());
    line.clear();
  }
  return 0;
}

int showReports(const std::string& path, const std::vector<reader::Report>& reports, const Options& options) {
  SourceLines sources;
  const Style style(modeNamed(options.colour));
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::string text;
  int code = 0;
  for (const reader::Report& report : reports) {
    const ReportView view = viewOf(report, sources);
    if (options.json)
      list.push_back(reportJson(view));
    else
      text += (text.empty() ? "" : "\n") + renderReport(view, style);
    for (const std::string& problem : report.problems)
      code = fail(kExitFailure, path + ": " + printable(problem));
  }
  if (options.json) text = jsonText({{"file", path}, {"reports", std::move(list)}});
  std::fwrite(text.data(), 1, text.size(), stdout);
  return code;
}

int show(const Options& options) {
  const std::string path = chosenFile(options.file);
  if (path.empty()) return fail(kExitFailure, "there are no reports below " + reader::diagnosticRoot());
  std::string error;
  const auto text = reader::readReportFile(path, error);
  if (!text) return fail(kExitFailure, error);
  std::vector<reader::Report> reports;
  for (const std::string_view part : reader::splitReports(*text))
    if (auto report = reader::parseReport(part)) reports.push_back(std::move(*report));
  return reports.empty() ? showOther(path, *text, options.json) : showReports(path, reports, options);
}

}  // namespace

void addShowCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("show", "Show a report with names, source lines and what blocked");
  setHelp(
      *sub, "show [OPTIONS] [FILE]",
      "Shows a report: its facts, the main thread first with the blocking frame marked (the application's "
      "own "
      "innermost function), names demangled, source lines where the images' files still are the ones of the "
      "report, "
      "threads with equal stacks together, and the extra data.");
  sub->add_option("FILE", options->file,
                  "A report file, by its path or as 'reports' lists it (default: the newest report)");
  sub->add_flag("--json", options->json, "Print JSON; its keys are described in the manual page");
  sub->add_option("--color", options->colour, "auto (on a terminal), always or never")
      ->check(oneOf({"auto", "always", "never"}))
      ->type_name("WHEN");
  sub->footer(
      "Exit codes: 0 shown, 1 no report, unreadable, or shown as far as it goes because it is damaged, 2 "
      "usage.\n\n"
      "Examples:\n"
      "  quibvitalscope show\n"
      "  quibvitalscope show 4242/freeze/severe/quibapp_stuck_2026-11-16_16_44_12.hang\n"
      "  quibvitalscope show --json FILE | jq '.reports[0].mainThread.blocking'");
  sub->callback([options, &context] {
    if (options->file.empty() && !context.arguments.empty()) options->file = context.arguments.front();
    context.exitCode = show(*options);
  });
}

}  // namespace qbv::cli
