// stacks: where the live memory of a running or dead process was allocated.
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/live_images.h"
#include "tools/quibvitalscope/show_json.h"
#include "tools/quibvitalscope/stacks_view.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/report_reader/parse.h"

namespace qbv::cli {
namespace {

namespace fs = std::filesystem;

struct Options {
  std::string file;
  std::string report;
  std::string by = "bytes";
  std::size_t top = 0;
  bool json = false;
  bool folded = false;
  std::string colour = "auto";
};

Style::Mode modeNamed(const std::string& name) {
  if (name == "always") return Style::Mode::always;
  return name == "never" ? Style::Mode::never : Style::Mode::automatic;
}

// As 'show' finds a report: also below the diagnostic folder; without a name the newest of all processes.
std::string chosenFile(const std::string& name) {
  const std::string root = reader::diagnosticRoot();
  std::error_code ignored;
  if (!name.empty())
    return !fs::exists(name, ignored) && fs::exists(root + "/" + name, ignored) ? root + "/" + name : name;
  std::vector<std::string> errors;
  for (const auto& file : reader::listDiagnosticFiles(root, std::nullopt, errors))
    if (file.kind == reader::FileKind::stacks) return file.path;
  return "";
}

std::string absolutePath(const std::string& path) {
  std::error_code failed;
  const fs::path absolute = fs::absolute(path, failed);
  return failed ? path : absolute.lexically_normal().string();
}

// The process whose file it is: ROOT/PID/dump/stack_backtrace.mmap. 0 when the path does not tell.
std::uint32_t processOf(const std::string& file) {
  const std::string folder = fs::path(absolutePath(file)).parent_path().parent_path().filename().string();
  std::uint32_t process = 0;
  const auto [end, error] = std::from_chars(folder.data(), folder.data() + folder.size(), process);
  return error == std::errc() && end == folder.data() + folder.size() ? process : 0;
}

// The newest report in the same process's folder; "" when there is none.
std::string reportBeside(const std::string& file) {
  const std::uint32_t process = processOf(file);
  if (process == 0) return "";
  const fs::path root = fs::path(absolutePath(file)).parent_path().parent_path().parent_path();
  std::vector<std::string> errors;
  for (const auto& other : reader::listDiagnosticFiles(root.string(), process, errors))
    if (reader::isReportKind(other.kind)) return other.path;
  return "";
}

// The last report of the file: the newest list of images. Nothing, after a complaint, when there is none.
std::optional<reader::Report> readReport(const std::string& path, std::uint32_t process) {
  std::string error;
  const auto text = reader::readReportFile(path, error);
  if (!text) {
    complain(error);
    return std::nullopt;
  }
  std::optional<reader::Report> report;
  for (const std::string_view part : reader::splitReports(*text))
    if (auto next = reader::parseReport(part)) report = std::move(next);
  if (!report)
    complain(path + " is no report");
  else if (process != 0 && report->processId != process)
    complain(path + " is a report of process " + std::to_string(report->processId) +
             ": its addresses may mean something else in process " + std::to_string(process));
  return report;
}

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
}

std::string headline(const stack_file::Contents& contents, const stack_file::Totals& totals,
                     std::size_t shown) {
  if (contents.stacks.empty()) return "No stack is above the monitor's threshold.\n";
  std::string text = byteText(totals.bytes) + " in " + std::to_string(totals.count) +
                     " allocations, stacks: " + std::to_string(contents.stacks.size());
  if (shown < contents.stacks.size()) text += ", the heaviest " + std::to_string(shown);
  return text + "\n\n";
}

int printStacks(const std::string& path, stack_file::Contents& contents, const std::string& reportPath,
                const reader::Report* report, const Options& options) {
  const auto weight = options.by == "count" ? stack_file::Weight::count : stack_file::Weight::bytes;
  const stack_file::Totals totals = stack_file::totalsOf(contents.stacks);
  stack_file::sortByWeight(contents.stacks, weight);
  std::vector<stack_file::Stack> chosen = contents.stacks;
  if (options.top != 0 && options.top < chosen.size()) chosen.resize(options.top);
  SourceLines sources;
  const auto stacks = placed(chosen, report, sources);
  if (options.json)
    print(jsonText({{"file", path},
                    {"report", report == nullptr || reportPath.empty() ? nlohmann::ordered_json()
                                                                       : nlohmann::ordered_json(reportPath)},
                    {"bytes", totals.bytes},
                    {"allocations", totals.count},
                    {"problems", contents.problems},
                    {"stacks", stacksJson(stacks)}}));
  else if (options.folded)
    print(foldedStacks(stacks, weight));
  else
    print(headline(contents, totals, chosen.size()) + renderStacks(stacks, Style(modeNamed(options.colour))));
  const std::string prefix = path + ": ";
  for (const std::string& problem : contents.problems) complain(prefix + problem);
  return contents.problems.empty() ? 0 : kExitFailure;
}

int showStacks(const Options& options) {
  const std::string path = chosenFile(options.file);
  if (path.empty()) return fail(kExitFailure, "there are no stack files below " + reader::diagnosticRoot());
  std::string error;
  const auto bytes = reader::readReportFile(path, error);
  if (!bytes) return fail(kExitFailure, error);
  auto contents = stack_file::parse(*bytes, error);
  if (!contents) return fail(kExitFailure, path + " " + error);
  std::optional<reader::Report> report;
  if (options.report.empty()) report = imagesOfRunning(processOf(path), absolutePath(path));
  const std::string reportPath = report ? "" : options.report.empty() ? reportBeside(path) : options.report;
  if (!reportPath.empty()) report = readReport(reportPath, processOf(path));
  if (!options.report.empty() && !report) return kExitFailure;
  if (!report && !contents->stacks.empty())
    complain("there is no report of the process, so addresses have no names; name one with --report");
  return printStacks(path, *contents, reportPath, report ? &*report : nullptr, options);
}

void addOptions(CLI::App& command, Options& options) {
  command.add_option("FILE", options.file,
                     "A stack file, by its path or as 'reports' lists it (default: the newest)");
  command
      .add_option(
          "--report", options.report,
          "A report of the same process (default: none while it runs, else the newest beside the stack file)")
      ->type_name("FILE");
  command.add_option("--by", options.by, "Heaviest by bytes or by count of allocations")
      ->check(oneOf({"bytes", "count"}))
      ->type_name("WEIGHT");
  command.add_option("--top", options.top, "Only so many stacks; 0, the default: all")->type_name("N");
  const auto json = command.add_flag("--json", options.json, "Print JSON; its keys are in the manual page");
  command
      .add_flag("--folded", options.folded,
                "Print one line a stack: frames from the outermost, ';' between them, a blank, the weight")
      ->excludes(json);
  command.add_option("--color", options.colour, "auto (on a terminal), always or never")
      ->check(oneOf({"auto", "always", "never"}))
      ->type_name("WHEN");
}

}  // namespace

void addStacksCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("stacks", "Show where live memory was allocated, heaviest first");
  setHelp(
      *sub, "stacks [OPTIONS] [FILE]",
      "Shows the allocation stacks that a running or dead process keeps in its stack file, with the bytes "
      "and allocations of each that are still alive. Names come from the files of the images that the "
      "process has mapped while it runs, and later of those that a report of it lists.");
  addOptions(*sub, *options);
  sub->footer(
      "Exit codes: 0 shown, 1 no stack file, unreadable, or shown as far as it goes because it is damaged, 2 "
      "usage.\n\n"
      "Examples:\n"
      "  quibvitalscope stacks\n"
      "  quibvitalscope stacks 4242/dump/stack_backtrace.mmap --by count --top 5\n"
      "  quibvitalscope stacks --folded > stacks.folded");
  sub->callback([options, &context] {
    if (options->file.empty() && !context.arguments.empty()) options->file = context.arguments.front();
    context.exitCode = showStacks(*options);
  });
}

}  // namespace qbv::cli
