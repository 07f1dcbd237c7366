#include "tools/quibvitalscope/stacks_view.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace qbv::cli {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kFunctionWidth = 44;
constexpr std::size_t kImageWidth = 24;

std::string hexadecimal(std::uint64_t value) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
  return text;
}

PlacedFrame placedFrame(std::uint64_t address, const reader::Report* report, SourceLines& sources) {
  PlacedFrame frame;
  frame.address = address;
  const reader::Image* const image = report == nullptr ? nullptr : report->imageAt(address);
  if (image == nullptr) return frame;
  frame.image = image->name;
  frame.imageOffset = address - image->begin;
  frame.owner = reader::ownerOf(image->name, report->images);
  if (const auto place = sources.at(*image, address, true)) {
    frame.function = reader::demangled(place->function);
    frame.sourceFile = place->file;
    frame.sourceLine = place->line;
  }
  return frame;
}

std::string nameOf(const PlacedFrame& frame) {
  if (!frame.function.empty()) return frame.function;
  return frame.image.empty() ? hexadecimal(frame.address) : "+ " + hexadecimal(frame.imageOffset);
}

std::string renderFrame(std::size_t index, const PlacedFrame& frame, const Style& style) {
  const std::string number = std::to_string(index);
  std::string image = frame.image.empty() ? "no image" : printable(frame.image);
  if (!frame.sourceFile.empty()) image = padded(std::move(image), kImageWidth);
  std::string line = std::string(number.size() < 3 ? 3 - number.size() : 0, ' ') + number + "  " +
                     padded(printable(nameOf(frame)), kFunctionWidth) + "  " + image;
  if (!frame.sourceFile.empty())
    line += "  " + printable(frame.sourceFile) + ":" + std::to_string(frame.sourceLine);
  return "  " + (frame.owner == reader::Owner::system ? style.dim(line) : line) + "\n";
}

Json frameJson(const PlacedFrame& frame) {
  Json json{{"address", hexadecimal(frame.address)},
            {"image", frame.image.empty() ? Json() : Json(frame.image)},
            {"imageOffset", frame.image.empty() ? Json() : Json(hexadecimal(frame.imageOffset))},
            {"function", frame.function.empty() ? Json() : Json(frame.function)},
            {"source", Json()}};
  if (!frame.sourceFile.empty()) json["source"] = {{"file", frame.sourceFile}, {"line", frame.sourceLine}};
  return json;
}

std::string foldedName(const PlacedFrame& frame) {
  if (!frame.function.empty()) return reader::withoutArguments(frame.function);
  return frame.image.empty() ? hexadecimal(frame.address)
                             : frame.image + "+" + hexadecimal(frame.imageOffset);
}

}  // namespace

std::vector<PlacedStack> placed(const std::vector<stack_file::Stack>& stacks, const reader::Report* report,
                                SourceLines& sources) {
  std::vector<PlacedStack> result;
  for (const stack_file::Stack& stack : stacks) {
    PlacedStack& entry = result.emplace_back(PlacedStack{&stack, {}});
    for (const std::uint64_t address : stack.frames)
      entry.frames.push_back(placedFrame(address, report, sources));
  }
  return result;
}

std::string byteText(std::uint64_t bytes) {
  constexpr double kStep = 1024;
  if (bytes < 1024) return std::to_string(bytes) + " bytes";
  double value = static_cast<double>(bytes) / kStep;
  const char* unit = "KiB";
  for (const char* const next : {"MiB", "GiB"}) {
    if (value < kStep) break;
    value /= kStep;
    unit = next;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, unit);
  return text;
}

std::string renderStacks(const std::vector<PlacedStack>& stacks, const Style& style) {
  std::string text;
  for (const PlacedStack& entry : stacks) {
    text += (text.empty() ? "" : "\n") + style.bold(byteText(entry.stack->bytes)) + " in " +
            std::to_string(entry.stack->count) +
            (entry.stack->count == 1 ? " allocation\n" : " allocations\n");
    for (std::size_t index = 0; index < entry.frames.size(); ++index)
      text += renderFrame(index, entry.frames[index], style);
  }
  return text;
}

nlohmann::ordered_json stacksJson(const std::vector<PlacedStack>& stacks) {
  Json list = Json::array();
  for (const PlacedStack& entry : stacks) {
    Json frames = Json::array();
    for (const PlacedFrame& frame : entry.frames) frames.push_back(frameJson(frame));
    list.push_back({{"id", hexadecimal(entry.stack->id)},
                    {"bytes", entry.stack->bytes},
                    {"allocations", entry.stack->count},
                    {"type", entry.stack->type},
                    {"frames", std::move(frames)}});
  }
  return list;
}

std::string foldedStacks(const std::vector<PlacedStack>& stacks, stack_file::Weight weight) {
  std::string text;
  for (const PlacedStack& entry : stacks) {
    std::vector<std::string> names;
    for (const PlacedFrame& frame : entry.frames) names.push_back(foldedName(frame));
    const bool bytes = weight == stack_file::Weight::bytes;
    text += stack_file::foldedLine(names, bytes ? entry.stack->bytes : entry.stack->count) + "\n";
  }
  return text;
}

}  // namespace qbv::cli
