#include "tools/quibvitalscope/watch_view.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "tools/quibvitalscope/report_view.h"

namespace qbv::cli {
namespace {

constexpr std::array kBlocks = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr std::array kPlain = {"_", ".", ",", "-", "=", "+", "*", "#"};

// Of the present use: small changes of a large process stay visible, noise stays flat.
constexpr double kMemoryFloor = 0.8;

template <class... Values>
std::string formatted(const char* format, Values... values) {
  char text[128];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

double last(const History& history) {
  return history.values().empty() ? 0 : history.values().back();
}

std::string levelText(const LevelCounts& counts) {
  std::string text;
  for (std::size_t i = 0; i < counts.size(); ++i)
    text += (i == 0 ? "" : "  ") + std::string(levelName(static_cast<int>(i) + 1)) + " " +
            std::to_string(counts[i]);
  return text;
}

std::uint64_t sum(const LevelCounts& counts) {
  std::uint64_t all = 0;
  for (const std::uint64_t count : counts) all += count;
  return all;
}

std::string slashes(const LevelCounts& counts) {
  std::string text;
  for (const std::uint64_t count : counts) text += (text.empty() ? "" : "/") + std::to_string(count);
  return text;
}

std::string gauge(const char* label, const std::string& value, const History& history, double floor,
                  const std::string& peak, bool plain) {
  return padded(label, 9) + padded(value, 12) +
         padded(sparkline(history.values(), floor, plain), History::kMost + 2) + "peak " + peak;
}

std::string hangLine(const Findings& findings, const Style& style) {
  if (!findings.ticks)
    return padded("hangs", 9) + style.dim("no record yet: builds that keep logs write one a minute");
  const std::string text = levelText(*findings.ticks) + "   seconds, as of " + findings.recordTime;
  return padded("hangs", 9) + (sum(*findings.ticks) == 0 ? text : style.warning(text));
}

std::string reportLine(const Findings& findings, const Style& style) {
  std::string text = "hang " + std::to_string(sum(findings.hangReports));
  if (sum(findings.hangReports) > 0) text += " (" + levelText(findings.hangReports) + ")";
  for (const auto& [kind, count] : findings.otherReports) text += "  " + kind + " " + std::to_string(count);
  if (!findings.hasFolder) text = style.dim("none, and no folder: is the process monitored?");
  return padded("reports", 9) + text;
}

std::string findingLine(const Finding& finding, const Style& style) {
  const std::string level = padded(finding.level, 10);
  const bool isGrave = finding.level == "severe" || finding.level == "freeze";
  return "  " + padded(finding.time, 21) + padded(finding.kind, 12) + (isGrave ? style.alarm(level) : level) +
         printable(finding.where);
}

}  // namespace

void History::add(double value) {
  values_.push_back(value);
  if (values_.size() > kMost) values_.pop_front();
  peak_ = std::max(peak_, value);
}

std::string sparkline(const std::deque<double>& values, double floor, bool plain) {
  if (values.empty()) return "";
  const auto [least, greatest] = std::minmax_element(values.begin(), values.end());
  const double bottom = std::min(floor, *least);
  const double height = *greatest - bottom;
  const auto& bars = plain ? kPlain : kBlocks;
  std::string line;
  for (const double value : values) {
    const double part = height > 0 ? (value - bottom) / height : 0;
    const auto top = static_cast<double>(bars.size() - 1);
    line += bars[static_cast<std::size_t>(std::clamp(std::round(part * top), 0.0, top))];
  }
  return line;
}

std::string durationText(double seconds) {
  const auto whole = static_cast<long long>(std::clamp(seconds, 0.0, 1e12));
  const long long days = whole / 86400;
  const long long hours = whole / 3600 % 24;
  const std::string rest = formatted(":%02lld", whole % 60);
  const long long minutes = whole / 60 % 60;
  if (days == 0 && hours == 0) return std::to_string(minutes) + rest;
  const std::string text = std::to_string(hours) + formatted(":%02lld", minutes) + rest;
  return days == 0 ? text : std::to_string(days) + " d " + text;
}

std::vector<std::string> watchLines(const WatchState& state, std::size_t rows, bool plain,
                                    const Style& style) {
  const std::string title = printable(state.name) + " [" + std::to_string(state.process) + "]";
  std::vector<std::string> lines = {
      style.bold(title) + "   running " + durationText(state.ageSeconds) + "   threads " +
          std::to_string(state.threads) + "   " + state.time,
      "",
      gauge("memory", formatted("%.1f MB", last(state.memory)), state.memory,
            kMemoryFloor * last(state.memory), formatted("%.1f MB", state.memory.peak()), plain),
      gauge("cpu", formatted("%.0f %%", last(state.cpu)), state.cpu, 0,
            formatted("%.0f %%", state.cpu.peak()), plain),
      hangLine(state.findings, style),
      reportLine(state.findings, style),
  };
  if (!state.findings.reports.empty()) {
    lines.emplace_back();
    lines.push_back(
        style.dim("  " + padded("TIME", 21) + padded("KIND", 12) + padded("LEVEL", 10) + "MAIN THREAD"));
  }
  for (const Finding& finding : state.findings.reports) lines.push_back(findingLine(finding, style));
  if (lines.size() > rows) lines.resize(rows);
  for (std::string& line : lines) line.resize(line.find_last_not_of(' ') + 1);
  return lines;
}

std::string watchLine(const WatchState& state) {
  const Findings& findings = state.findings;
  std::uint64_t reports = sum(findings.hangReports);
  for (const auto& [kind, count] : findings.otherReports) reports += count;
  std::string line = state.time + "  memory " + formatted("%.1f MB", last(state.memory)) + "  cpu " +
                     formatted("%.0f %%", last(state.cpu)) + "  threads " + std::to_string(state.threads) +
                     "  hangs " + (findings.ticks ? slashes(*findings.ticks) : "-") + "  reports " +
                     std::to_string(reports);
  if (findings.reports.empty()) return line;
  const Finding& newest = findings.reports.front();
  line += "  last " + newest.time + " " + newest.kind + (newest.level.empty() ? "" : " " + newest.level);
  return line + (newest.where.empty() ? "" : ", " + printable(newest.where));
}

}  // namespace qbv::cli
