#include "tools/quibvitalscope/show_json.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace qbv::cli {
namespace {

using Json = nlohmann::ordered_json;

// JSON readers lose digits of large numbers, so addresses are text.
std::string hexadecimal(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

Json textOrNull(const std::string& text) {
  return text.empty() ? Json() : Json(text);
}

const char* ownerName(reader::Owner owner) {
  if (owner == reader::Owner::application) return "application";
  return owner == reader::Owner::library ? "library" : "system";
}

Json frameJson(const FrameView& view) {
  const reader::Frame& frame = *view.frame;
  Json json{{"index", frame.index},
            {"address", hexadecimal(frame.address)},
            {"image", textOrNull(frame.image)},
            {"imageOffset", view.imageOffset == 0 ? Json() : Json(hexadecimal(view.imageOffset))},
            {"owner", ownerName(view.owner)},
            {"function", textOrNull(view.function)},
            {"symbol", frame.symbol ? Json(*frame.symbol) : Json()},
            {"offset", frame.offset},
            {"source", Json()}};
  if (!view.sourceFile.empty()) json["source"] = {{"file", view.sourceFile}, {"line", view.sourceLine}};
  return json;
}

Json framesJson(const StackView& stack) {
  Json frames = Json::array();
  for (const FrameView& frame : stack.frames) frames.push_back(frameJson(frame));
  return frames;
}

Json mainThreadJson(const ReportView& view) {
  if (!view.mainThread) return nullptr;
  const reader::Thread& thread = *view.mainThread->threads.front();
  Json json{{"cpuPercent", thread.cpuPercent ? Json(*thread.cpuPercent) : Json()},
            {"memoryMegabytes", thread.memoryMegabytes ? Json(*thread.memoryMegabytes) : Json()},
            {"blocking", Json()},
            {"frames", framesJson(*view.mainThread)}};
  if (view.blocking) {
    const FrameView& frame = view.mainThread->frames[view.blocking->frame];
    json["blocking"] = {{"frame", frame.frame->index},
                        {"function", textOrNull(frame.function)},
                        {"waitingIn", textOrNull(reader::demangled(view.blocking->waitingIn))}};
  }
  return json;
}

Json stacksJson(const ReportView& view) {
  Json stacks = Json::array();
  for (const StackView& stack : view.others) {
    Json ids = Json::array();
    for (const reader::Thread* const thread : stack.threads) ids.push_back(thread->id);
    stacks.push_back({{"threads", std::move(ids)}, {"frames", framesJson(stack)}});
  }
  return stacks;
}

Json imagesJson(const ReportView& view) {
  Json images = Json::array();
  for (std::size_t i = 0; i < view.report->images.size(); ++i) {
    const reader::Image& image = view.report->images[i];
    images.push_back({{"name", image.name},
                      {"path", image.path},
                      {"begin", hexadecimal(image.begin)},
                      {"end", hexadecimal(image.end)},
                      {"buildId", textOrNull(image.buildId)},
                      {"file", view.imageFiles[i] ? Json(imageFileName(*view.imageFiles[i])) : Json()}});
  }
  return images;
}

Json factsJson(const reader::Report& report) {
  Json facts = Json::object();
  for (const auto& [label, value] : report.facts) facts[label] = value;
  return facts;
}

Json extraJson(const reader::Report& report) {
  Json data = Json::parse(report.extraData, nullptr, false);
  return data.is_object() ? data : Json();
}

}  // namespace

Json reportJson(const ReportView& view) {
  const reader::Report& report = *view.report;
  return Json{{"process", textOrNull(report.process)},
              {"pid", report.processId},
              {"level", view.level == 0 ? Json() : Json(view.level)},
              {"levelName", textOrNull(levelName(view.level))},
              {"facts", factsJson(report)},
              {"mainThread", mainThreadJson(view)},
              {"otherThreads", stacksJson(view)},
              {"failures", report.failures},
              {"images", imagesJson(view)},
              {"extraData", extraJson(report)},
              {"problems", report.problems}};
}

std::string jsonText(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace qbv::cli
