#include <algorithm>
#include <cctype>
#include <charconv>

#include "tools/report_reader/parse.h"

namespace qbv::reader {
namespace {

constexpr std::size_t kFrameNameColumn = 4;
constexpr std::size_t kAddressDigits = 16;
constexpr std::size_t kUuidLength = 36;

template <class Number>
bool number(std::string_view text, Number& value, int base = 10) {
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && stop == text.data() + text.size() && !text.empty();
}

bool isHex(std::string_view text) {
  return !text.empty() &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isxdigit(c); });
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(' ');
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

bool hexNumber(std::string_view text, std::uint64_t& value) {
  // "%#lx" writes zero without the prefix.
  if (text == "0") return value = 0, true;
  return text.starts_with("0x") && number(text.substr(2), value, 16);
}

// Where " 0x" and sixteen digits stand between blanks; the image's name may itself look like that.
std::size_t addressColumn(std::string_view line) {
  for (auto at = line.find(" 0x", kFrameNameColumn + 1); at != std::string_view::npos;
       at = line.find(" 0x", at + 1)) {
    const std::string_view digits = line.substr(at + 3, kAddressDigits);
    const std::size_t behind = at + 3 + kAddressDigits;
    if (digits.size() == kAddressDigits && isHex(digits) && behind < line.size() && line[behind] == ' ')
      return at + 1;
  }
  return std::string_view::npos;
}

bool parsePlace(std::string_view text, Frame& frame) {
  const auto plus = text.rfind(" + ");
  if (plus == std::string_view::npos || plus == 0 || !number(text.substr(plus + 3), frame.offset))
    return false;
  const std::string_view name = text.substr(0, plus);
  std::uint64_t base = 0;
  if (!hexNumber(name, base)) frame.symbol = std::string(name);
  return true;
}

bool isUuid(std::string_view text) {
  if (text.size() != kUuidLength) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

std::string digitsOf(std::string_view uuid) {
  std::string digits;
  for (const char c : uuid)
    if (c != '-') digits += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return digits;
}

// NAME (VERSION - VERSION) <UUID> PATH, where name, version and path may hold anything.
bool parseImageNames(std::string_view text, Image& image) {
  for (auto open = text.find(") <"); open != std::string_view::npos; open = text.find(") <", open + 1)) {
    const auto close = text.find("> ", open);
    if (close == std::string_view::npos) return false;
    const std::string_view id = text.substr(open + 3, close - open - 3);
    if (id != "(null)" && !isUuid(id)) continue;
    image.path = text.substr(close + 2);
    image.name = image.path.substr(image.path.rfind('/') + 1);
    image.buildId = id == "(null)" ? "" : digitsOf(id);
    if (!text.starts_with(image.name + " (") || open < image.name.size() + 2) continue;
    const std::string_view versions = text.substr(image.name.size() + 2, open - image.name.size() - 2);
    if (versions.size() >= 3) image.version = versions.substr(0, (versions.size() - 3) / 2);
    return true;
  }
  return false;
}

}  // namespace

std::optional<Frame> parseFrame(std::string_view line) {
  Frame frame;
  const std::size_t column = addressColumn(line);
  if (column == std::string_view::npos) return std::nullopt;
  if (!number(trimmed(line.substr(0, kFrameNameColumn)), frame.index)) return std::nullopt;
  if (!hexNumber(line.substr(column, kAddressDigits + 2), frame.address)) return std::nullopt;
  if (!parsePlace(line.substr(column + kAddressDigits + 3), frame)) return std::nullopt;
  const std::string_view name = trimmed(line.substr(kFrameNameColumn, column - kFrameNameColumn));
  if (name != "0x0000000000000000") frame.image = name;
  return frame;
}

std::optional<Image> parseImage(std::string_view line) {
  constexpr std::size_t kAddressWidth = 18;
  if (line.size() < 2 * kAddressWidth + 4 || line.substr(kAddressWidth, 3) != " - ") return std::nullopt;
  Image image;
  const std::string_view end = line.substr(kAddressWidth + 3, kAddressWidth);
  if (!hexNumber(trimmed(line.substr(0, kAddressWidth)), image.begin) || !hexNumber(trimmed(end), image.end))
    return std::nullopt;
  if (!parseImageNames(line.substr(2 * kAddressWidth + 4), image)) return std::nullopt;
  return image;
}

}  // namespace qbv::reader
