#include "tools/quibvitalscope/terminal.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "vitalscope/platform/value.h"

namespace qbv::cli {
namespace {

bool terminalHasColours() {
  const char* const term = std::getenv("TERM");
  const char* const noColour = std::getenv("NO_COLOR");
  const bool forbidden = noColour != nullptr && *noColour != '\0';
  return !forbidden && term != nullptr && std::string_view(term) != "dumb" && ::isatty(STDOUT_FILENO) != 0;
}

// Second byte of the control characters behind 0x7f, U+0080 to U+009F, which UTF-8 writes as 0xc2 0x80…0x9f.
bool isHighControl(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]) == 0xc2 && at + 1 < text.size() &&
         static_cast<unsigned char>(text[at + 1]) < 0xa0;
}

}  // namespace

std::string printable(std::string_view text) {
  const bool wellFormed = qbv::isValidUTF8(std::string(text));
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    const bool highControl = wellFormed && isHighControl(text, at);
    const bool control = byte < 0x20 || byte == 0x7f || highControl || (byte >= 0x80 && !wellFormed);
    result += control ? '?' : text[at];
    if (highControl) ++at;
  }
  return result;
}

std::string padded(std::string text, std::size_t width) {
  const auto characters = static_cast<std::size_t>(std::count_if(
      text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; }));
  if (characters < width) text.append(width - characters, ' ');
  return text;
}

Style::Style(Mode mode)
    : colours_(mode == Mode::always || (mode == Mode::automatic && terminalHasColours())) {}

std::string Style::wrap(const char* code, std::string_view text) const {
  if (!colours_ || text.empty()) return std::string(text);
  return std::string("\033[") + code + "m" + std::string(text) + "\033[0m";
}

}  // namespace qbv::cli
