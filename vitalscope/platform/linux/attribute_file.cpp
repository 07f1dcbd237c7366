#include "vitalscope/platform/linux/attribute_file.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/file_tree.h"

namespace qbv::linux_backend {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";
// Beyond any millionth of a unit that a device can mean; keeps sums and products within 64 bits.
constexpr std::int64_t kMostBelievable = 1'000'000'000'000'000;

}  // namespace

std::optional<std::string> attributeText(const std::string& path) {
  const Descriptor file(retried([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  if (!file) return std::nullopt;
  std::array<char, 4096> text;
  const ssize_t length = retried([&] { return ::read(file.get(), text.data(), text.size()); });
  if (length < 0) return std::nullopt;
  return std::string(text.data(), static_cast<std::size_t>(length));
}

std::string attributeWord(const std::string& path) {
  const std::string text = attributeText(path).value_or("");
  const std::string_view line = std::string_view(text).substr(0, text.find('\n'));
  const std::size_t first = line.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return "";
  return std::string(line.substr(first, line.find_last_not_of(kBlanks) + 1 - first));
}

std::optional<std::int64_t> attributeNumber(const std::string& path) {
  const std::string word = attributeWord(path);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  const bool isWhole = error == std::errc() && end == word.data() + word.size();
  if (!isWhole || number > kMostBelievable || number < -kMostBelievable) return std::nullopt;
  return number;
}

std::optional<std::vector<std::string>> sortedNamesIn(const std::string& folder) {
  const int descriptor = retried([&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  if (descriptor < 0) return std::nullopt;
  auto names = namesInFolder(descriptor);
  if (names) std::ranges::sort(*names);
  return names;
}

std::string_view nextWord(std::string_view& text) {
  const std::size_t first = std::min(text.find_first_not_of(kBlanks), text.size());
  const std::size_t end = std::min(text.find_first_of(kBlanks, first), text.size());
  const std::string_view word = text.substr(first, end - first);
  text.remove_prefix(end);
  return word;
}

}  // namespace qbv::linux_backend
