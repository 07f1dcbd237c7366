#include "tools/quibvitalscope/report_view.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <set>

namespace qbv::cli {
namespace {

FrameView frameView(const reader::Frame& frame, const reader::Report& report, SourceLines& sources) {
  FrameView view;
  view.frame = &frame;
  view.owner = reader::ownerOf(frame.image, report.images);
  std::string symbol = frame.symbol.value_or("");
  if (const reader::Image* const image = report.imageAt(frame.address)) {
    view.imageOffset = frame.address - image->begin;
    if (const auto place = sources.at(*image, frame.address, frame.index > 0)) {
      view.sourceFile = place->file;
      view.sourceLine = place->line;
      if (symbol.empty()) symbol = place->function;
    }
  }
  view.function = reader::demangled(symbol);
  return view;
}

std::vector<FrameView> frameViews(const reader::Thread& thread, const reader::Report& report,
                                  SourceLines& sources) {
  std::vector<FrameView> views;
  for (const reader::Frame& frame : thread.frames) views.push_back(frameView(frame, report, sources));
  return views;
}

void addThread(std::vector<StackView>& stacks, const reader::Thread& thread, const reader::Report& report,
               SourceLines& sources) {
  const auto equal = std::find_if(stacks.begin(), stacks.end(), [&](const StackView& stack) {
    return stack.threads.front()->frames == thread.frames;
  });
  if (equal != stacks.end()) return equal->threads.push_back(&thread);
  stacks.push_back({{&thread}, frameViews(thread, report, sources)});
}

int levelOf(const reader::Report& report) {
  const auto data = nlohmann::json::parse(report.extraData, nullptr, false);
  if (!data.is_object() || !data.contains("anrLevel") || !data["anrLevel"].is_number_integer()) return 0;
  const auto level = data["anrLevel"].get<std::int64_t>();
  return level >= 1 && level <= 5 ? static_cast<int>(level) : 0;
}

std::vector<std::optional<ImageFile>> imageFiles(const reader::Report& report, SourceLines& sources) {
  std::set<const reader::Image*> used;
  for (const reader::Thread& thread : report.threads)
    for (const reader::Frame& frame : thread.frames) used.insert(report.imageAt(frame.address));
  std::vector<std::optional<ImageFile>> states;
  for (const reader::Image& image : report.images)
    states.push_back(used.contains(&image) ? std::optional(sources.state(image)) : std::nullopt);
  return states;
}

}  // namespace

const char* levelName(int level) {
  constexpr std::array names = {"", "light", "moderate", "heavier", "severe", "freeze"};
  return level >= 1 && level <= 5 ? names[static_cast<std::size_t>(level)] : "";
}

ReportView viewOf(const reader::Report& report, SourceLines& sources) {
  ReportView view;
  view.report = &report;
  view.level = levelOf(report);
  for (const reader::Thread& thread : report.threads) {
    if (thread.main && !view.mainThread) {
      view.mainThread = StackView{{&thread}, frameViews(thread, report, sources)};
      view.blocking = reader::blockingFrame(thread.frames, report.images);
    } else {
      addThread(view.others, thread, report, sources);
    }
  }
  view.imageFiles = imageFiles(report, sources);
  return view;
}

}  // namespace qbv::cli
