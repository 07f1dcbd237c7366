#include "tools/quibvitalscope/watch_findings.h"

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <utility>

#include "tools/quibvitalscope/report_view.h"
#include "tools/report_reader/blocking_frame.h"
#include "tools/report_reader/diagnostic_folder.h"
#include "tools/report_reader/parse.h"

namespace qbv::cli {
namespace {

constexpr std::array kLevelKeys = {"QBVANR_LEVEL_Light", "QBVANR_LEVEL_Moderate", "QBVANR_LEVEL_Heavier",
                                   "QBVANR_LEVEL_Severe", "QBVANR_LEVEL_Freeze"};

std::size_t levelIndex(const std::string& level) {
  for (int number = 1; number <= 5; ++number)
    if (level == levelName(number)) return static_cast<std::size_t>(number - 1);
  return kLevelKeys.size();
}

// The newest report of a file that holds several is the one that counts.
std::string mainThreadOf(const std::string& path) {
  std::string error;
  const auto text = reader::readReportFile(path, error);
  const auto parts = text ? reader::splitReports(*text) : std::vector<std::string_view>();
  const auto report = parts.empty() ? std::nullopt : reader::parseReport(parts.back());
  const reader::Thread* const main = report ? report->mainThread() : nullptr;
  return main == nullptr ? "" : reader::describeBlocking(main->frames, report->images);
}

}  // namespace

std::optional<LevelCounts> hangTicks(std::string_view record) {
  const auto json = nlohmann::json::parse(record, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  LevelCounts counts{};
  const auto levels = json.find("ANR");
  if (levels == json.end() || !levels->is_object()) return counts;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const auto count = levels->find(kLevelKeys[i]);
    if (count != levels->end() && count->is_number_unsigned()) counts[i] = count->get<std::uint64_t>();
  }
  return counts;
}

FindingsReader::FindingsReader(std::string root, std::uint32_t process)
    : root_(std::move(root)), process_(process) {}

Findings FindingsReader::read(std::size_t most) {
  Findings found;
  std::vector<std::string> errors;  // a file may go while it is looked at
  for (const auto& file : reader::listDiagnosticFiles(root_, process_, errors)) {
    found.hasFolder = true;
    if (file.kind == reader::FileKind::record && !found.ticks) {
      std::string error;
      const auto text = reader::readReportFile(file.path, error);
      found.ticks = text ? hangTicks(*text) : std::nullopt;
      if (found.ticks) found.recordTime = file.time;
    }
    if (!reader::isReportKind(file.kind)) continue;
    if (const std::size_t level = levelIndex(file.level); level < found.hangReports.size())
      ++found.hangReports[level];
    else
      ++found.otherReports[reader::kindName(file.kind)];
    if (found.reports.size() < most)
      found.reports.push_back({file.time, reader::kindName(file.kind), file.level, whereOf(file.path)});
  }
  return found;
}

const std::string& FindingsReader::whereOf(const std::string& path) {
  std::error_code error;
  const std::uint64_t size = std::filesystem::file_size(path, error);
  const auto [entry, isNew] = read_.try_emplace({path, error ? 0 : size});
  if (isNew) entry->second = mainThreadOf(path);
  return entry->second;
}

}  // namespace qbv::cli
