// reports: all files below the diagnostic folder, newest first.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "tools/quibvitalscope/command.h"
#include "tools/quibvitalscope/help.h"
#include "tools/quibvitalscope/show_json.h"
#include "tools/quibvitalscope/terminal.h"
#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/report_reader/parse.h"

namespace qbv::cli {
namespace {

struct Options {
  std::optional<std::uint32_t> process;
  bool json = false;
};

struct Entry {
  reader::DiagnosticFile file;
  std::string process;  // name; "" when the file does not tell
  std::string where;    // of the main thread
  std::string problem;  // "" when it was read whole
};

// The newest report of a file that holds several is the one that counts.
void readReport(Entry& entry) {
  std::string error;
  const auto text = reader::readReportFile(entry.file.path, error);
  if (!text) return void(entry.problem = error);
  const auto parts = reader::splitReports(*text);
  const auto report = parts.empty() ? std::nullopt : reader::parseReport(parts.back());
  if (!report)
    return void(entry.problem = entry.file.path + " is no report" + (text->empty() ? ": it is empty" : ""));
  entry.process = report->process;
  if (const reader::Thread* const main = report->mainThread())
    entry.where = reader::describeBlocking(main->frames, report->images);
  if (!report->problems.empty()) entry.problem = entry.file.path + ": " + report->problems.front();
}

// A sample names its process as a report does.
void readSample(Entry& entry) {
  std::string error;
  const auto text = reader::readReportFile(entry.file.path, error);
  if (!text) return void(entry.problem = error);
  entry.process = reader::processName(*text);
}

std::string below(const std::string& path, const std::string& root) {
  return path.starts_with(root + "/") ? path.substr(root.size() + 1) : path;
}

void printTable(const std::vector<Entry>& entries, const std::string& root) {
  if (entries.empty()) return;
  const auto line = [](const std::string& time, const std::string& kind, const std::string& level,
                       const std::string& process, const std::string& rest) {
    const std::string text =
        padded(time, 21) + padded(kind, 12) + padded(level, 10) + padded(process, 25) + " " + rest;
    std::printf("%s\n", text.substr(0, text.find_last_not_of(' ') + 1).c_str());
  };
  std::printf("%s/\n", printable(root).c_str());
  line("TIME", "KIND", "LEVEL", "PROCESS", "MAIN THREAD");
  for (const Entry& entry : entries) {
    const std::string process = entry.process + " [" + std::to_string(entry.file.processId) + "]";
    line(entry.file.time, kindName(entry.file.kind), entry.file.level,
         printable(entry.process.empty() ? process.substr(1) : process), printable(entry.where));
    std::printf("  %s\n", printable(below(entry.file.path, root)).c_str());
  }
}

nlohmann::ordered_json entryJson(const Entry& entry) {
  const auto textOrNull = [](const std::string& text) {
    return text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(text);
  };
  return {{"time", textOrNull(entry.file.time)},
          {"kind", kindName(entry.file.kind)},
          {"level", textOrNull(entry.file.level)},
          {"process", textOrNull(entry.process)},
          {"pid", entry.file.processId},
          {"mainThread", textOrNull(entry.where)},
          {"path", entry.file.path},
          {"problem", textOrNull(entry.problem)}};
}

int reports(const Options& options) {
  const std::string root = reader::diagnosticRoot();
  if (root.empty()) return fail(kExitFailure, "there is no home folder: HOME is not set");
  std::vector<std::string> errors;
  std::vector<Entry> entries;
  for (auto& file : reader::listDiagnosticFiles(root, options.process, errors)) {
    entries.push_back({std::move(file), "", "", ""});
    if (reader::isReportKind(entries.back().file.kind)) readReport(entries.back());
    if (entries.back().file.kind == reader::FileKind::sample) readSample(entries.back());
    if (!entries.back().problem.empty()) errors.push_back(entries.back().problem);
  }
  if (options.json) {
    auto list = nlohmann::ordered_json::array();
    for (const Entry& entry : entries) list.push_back(entryJson(entry));
    std::fputs(jsonText({{"folder", root}, {"files", std::move(list)}}).c_str(), stdout);
  } else {
    printTable(entries, root);
  }
  for (const std::string& error : errors) complain(printable(error));
  return errors.empty() ? 0 : kExitFailure;
}

}  // namespace

void addReportsCommand(CLI::App& app, Context& context) {
  const auto options = std::make_shared<Options>();
  CLI::App* const sub = app.add_subcommand("reports", "List the reports of all processes, newest first");
  setHelp(
      *sub, "reports [OPTIONS]",
      "Lists the files below ~/Library/Logs/quibapp/Diagnostic, newest first: time, kind, level of a hang, "
      "process, "
      "what the main thread was in (the application's own function … in what it waited for), and the path to "
      "give to "
      "'show'. Kinds: hang, memory, allocation, leaks, power, sample (call samples), record (daily records), "
      "profile, "
      "stacks (large live allocations), other.");
  sub->add_option("--pid", options->process, "Only of this process")->check(processId())->type_name("PID");
  sub->add_flag("--json", options->json, "Print JSON; its keys are described in the manual page");
  sub->footer(
      "Exit codes: 0 also when there are none, 1 something could not be read (told on standard error), 2 "
      "usage.\n\n"
      "Examples:\n"
      "  quibvitalscope reports --pid 4242\n"
      "  quibvitalscope reports --json | jq -r '.files[] | select(.level == \"freeze\") | .path'");
  sub->callback([options, &context] { context.exitCode = reports(*options); });
}

}  // namespace qbv::cli
