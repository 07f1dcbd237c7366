#include "vitalscope/probes/frame_line.h"

#include <array>
#include <charconv>
#include <string_view>

#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace qbv {
namespace {

constexpr std::size_t indexColumns = 4;
constexpr std::size_t imageColumns = 31;

void appendPadded(std::string& text, std::string_view field, std::size_t columns) {
  text.append(field);
  if (field.size() < columns) text.append(columns - field.size(), ' ');
}

// What to_chars leaves in a buffer of its own; the text lives as long as the object.
class NumberText {
 public:
  template <typename Number>
  NumberText(Number value, int base) {
    end_ = std::to_chars(digits_.begin(), digits_.end(), value, base).ptr;
  }
  operator std::string_view() const { return {digits_.begin(), end_}; }

 private:
  std::array<char, 24> digits_;
  const char* end_ = nullptr;
};

std::array<char, 18> fullHex(std::uint64_t value) {
  std::array<char, 18> text{'0', 'x'};
  for (std::size_t i = text.size() - 1; i > 1; --i, value >>= 4) text[i] = "0123456789abcdef"[value & 0xF];
  return text;
}

void appendImageName(std::string& text, const qbv_symbol_record& record) {
  if (const char* const name = qbv_lastPathEntry(record.image_path)) {
    appendPadded(text, name, imageColumns);
  } else {
    const auto address = fullHex(record.image_load_address);
    appendPadded(text, {address.data(), address.size()}, imageColumns);
  }
}

void appendSymbol(std::string& text, std::uint64_t address, const qbv_symbol_record& record) {
  std::uint64_t start = record.symbol_address;
  if (record.symbol_name == nullptr || safe_strcmp(record.symbol_name, "<redacted>") == 0) {
    start = record.image_load_address;
    text.append("0x").append(NumberText(start, 16));
  } else {
    text.append(record.symbol_name);
  }
  text.append(" + ").append(NumberText(address - start, 10));
}

}  // namespace

void appendFrameLine(std::string& text, int index, std::uint64_t address, const qbv_symbol_record& record) {
  appendPadded(text, NumberText(index, 10), indexColumns);
  appendImageName(text, record);
  const auto shown = fullHex(address);
  text.append(1, ' ').append(shown.data(), shown.size()).append(1, ' ');
  appendSymbol(text, address, record);
  text.append(1, '\n');
}

}  // namespace qbv
