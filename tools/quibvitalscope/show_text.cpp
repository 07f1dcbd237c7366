#include "tools/quibvitalscope/show_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>

namespace qbv::cli {
namespace {

constexpr std::size_t kLabelWidth = 16;
constexpr std::size_t kFunctionWidth = 44;
constexpr std::size_t kImageWidth = 24;
constexpr std::size_t kNoFrame = static_cast<std::size_t>(-1);
constexpr const char* kMark = "▶";

struct FactLine {
  const char* shown;
  const char* label;
};
constexpr std::array<FactLine, 10> kFacts = {{{"Date", "Date/Time"},
                                              {"Identifier", "Identifier"},
                                              {"Version", "Version"},
                                              {"Architecture", "Code Type"},
                                              {"System", "OS Version"},
                                              {"Machine", "Device Name"},
                                              {"Parent process", "Parent Process"},
                                              {"Live allocations", "Alloc Memory Live Count"},
                                              {"Live objects", "OC Object Live Count"},
                                              {"Report version", "Report Version"}}};

std::string figure(double value, const char* unit) {
  char text[64];
  std::snprintf(text, sizeof text, "%.2f%s", value, unit);
  return text;
}

std::string hexadecimal(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

std::string factLine(const std::string& label, const std::string& value) {
  return "  " + padded(label, kLabelWidth) + "  " + printable(value) + "\n";
}

// Below the current folder as a relative path: what editors and eyes like.
std::string shortPath(const std::string& path) {
  std::error_code error;
  const std::string here = std::filesystem::current_path(error).string() + "/";
  return !error && here.size() > 1 && path.starts_with(here) ? path.substr(here.size()) : path;
}

std::string nameOf(const FrameView& view) {
  if (!view.function.empty()) return view.function;
  return view.imageOffset != 0 ? "+ " + hexadecimal(view.imageOffset) : hexadecimal(view.frame->address);
}

std::string renderFrame(const FrameView& view, bool blocking, const Style& style) {
  const std::string index = std::to_string(view.frame->index);
  std::string line = std::string(index.size() < 3 ? 3 - index.size() : 0, ' ') + index + "  ";
  std::string image = view.frame->image.empty() ? "no image" : printable(view.frame->image);
  if (!view.sourceFile.empty()) image = padded(std::move(image), kImageWidth);
  line += padded(printable(nameOf(view)), kFunctionWidth) + "  " + image;
  if (!view.sourceFile.empty())
    line += "  " + printable(shortPath(view.sourceFile)) + ":" + std::to_string(view.sourceLine);
  if (blocking) return style.alarm(kMark + (" " + line)) + "\n";
  return "  " + (view.owner == reader::Owner::system ? style.dim(line) : line) + "\n";
}

std::string renderFrames(const StackView& stack, std::size_t blocking, const Style& style) {
  std::string text;
  for (std::size_t i = 0; i < stack.frames.size(); ++i)
    text += renderFrame(stack.frames[i], blocking == i, style);
  return text.empty() ? "  no frames\n" : text;
}

std::string headline(const ReportView& view, const Style& style) {
  const reader::Report& report = *view.report;
  const std::string process = report.process + " [" + std::to_string(report.processId) + "]";
  std::string text = style.bold(printable(process)) + "  " + printable(report.fact("Exception Type"));
  if (view.level > 0)
    text += ", level " + style.alarm(levelName(view.level)) + " (" + std::to_string(view.level) + " of 5)";
  return text + "\n";
}

std::string facts(const ReportView& view, const Style& style) {
  const reader::Report& report = *view.report;
  std::string text = headline(view, style);
  for (const auto& [shown, label] : kFacts)
    if (const auto value = report.fact(label); !value.empty()) text += factLine(shown, std::string(value));
  if (view.mainThread) {
    const reader::Thread& main = *view.mainThread->threads.front();
    const std::string where = reader::describeBlocking(main.frames, report.images);
    if (!where.empty()) text += factLine("Main thread in", where);
  }
  return text;
}

std::string mainThread(const ReportView& view, const Style& style) {
  if (!view.mainThread) return "\n" + style.bold("Main thread") + "  was not captured\n";
  const reader::Thread& thread = *view.mainThread->threads.front();
  std::string text = "\n" + style.bold("Main thread");
  if (thread.cpuPercent) text += "  CPU " + figure(*thread.cpuPercent, " %");
  if (thread.memoryMegabytes) text += "  memory " + figure(*thread.memoryMegabytes, " MB");
  const std::size_t blocking = view.blocking ? view.blocking->frame : kNoFrame;
  return text + "\n" + renderFrames(*view.mainThread, blocking, style);
}

std::string heading(const StackView& stack, const Style& style) {
  constexpr std::size_t kMostNamed = 8;
  const std::size_t count = stack.threads.size();
  std::string text = count == 1 ? "Thread" : std::to_string(count) + " threads with one stack:";
  for (std::size_t i = 0; i < std::min(count, kMostNamed); ++i)
    text += (i == 0 ? " " : ", ") + std::to_string(stack.threads[i]->id);
  if (count > kMostNamed) text += ", …";
  return "\n" + style.bold(text) + "\n";
}

std::string imageNotes(const ReportView& view, const Style& style) {
  std::string text;
  for (std::size_t i = 0; i < view.imageFiles.size(); ++i)
    if (view.imageFiles[i] == ImageFile::otherBuild)
      text += factLine(view.report->images[i].name, "the file is another build by now: no source lines (" +
                                                        view.report->images[i].path + ")");
  return text.empty() ? text : "\n" + style.bold("Images") + "\n" + text;
}

std::string extraData(const reader::Report& report, const Style& style) {
  const auto data = nlohmann::json::parse(report.extraData, nullptr, false);
  if (!data.is_object() || data.empty()) return "";
  std::string text = "\n" + style.bold("Extra data") + "\n";
  for (const auto& [key, value] : data.items())
    text += factLine(printable(key), value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return text;
}

}  // namespace

std::string renderReport(const ReportView& view, const Style& style) {
  std::string text = facts(view, style) + mainThread(view, style);
  for (const StackView& stack : view.others)
    text += heading(stack, style) + renderFrames(stack, kNoFrame, style);
  for (const std::string& failure : view.report->failures)
    text += "\n" + style.warning(printable(failure)) + "\n";
  return text + imageNotes(view, style) + extraData(*view.report, style);
}

}  // namespace qbv::cli
