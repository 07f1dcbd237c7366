#include "vitalscope/profiler/profile_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <unordered_map>

namespace qbv {

namespace {

constexpr std::size_t kMostPrinted = 50;
constexpr int kLevelsForPrograms = 200;
constexpr double kMicrosecondsPerSecond = 1000000;
constexpr double kMillisecondsPerSecond = 1000;
constexpr std::string_view kEndOfText = "</xmp";

std::shared_ptr<QBVTimeProfilerRecord> recordOf(const RecordedCall& call) {
  auto record = std::make_shared<QBVTimeProfilerRecord>();
  record->setClassName(call.className);
  record->setMethodName(call.methodName);
  record->setIsClassMethod(call.isClassMethod);
  record->setTimeCost(static_cast<double>(call.microseconds) / kMicrosecondsPerSecond);
  record->setCallDepth(static_cast<std::uint64_t>(std::int64_t{call.depth}));
  return record;
}

bool endsText(std::string_view text) {
  if (text.size() < kEndOfText.size()) return false;
  for (std::size_t i = 0; i < kEndOfText.size(); ++i) {
    const char c = text[i];
    if ((c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c) != kEndOfText[i]) return false;
  }
  return true;
}

double wholeMicroseconds(double seconds) {
  return std::round(seconds * kMicrosecondsPerSecond);
}

std::string asUTF8(std::string name) {
  if (!isValidUTF8(name))
    std::replace_if(
        name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7f; }, '?');
  return name;
}

Value valueOf(const QBVTimeProfilerRecord& record, int levels) {
  Value::Dictionary value{{"class", asUTF8(record.className())},
                          {"method", asUTF8(record.methodName())},
                          {"classMethod", record.isClassMethod()},
                          {"milliseconds", wholeMicroseconds(record.timeCost()) / 1000}};
  if (record.subRecords() && levels > 1) {
    Value::Array below;
    for (const auto& sub : *record.subRecords()) below.push_back(valueOf(*sub, levels - 1));
    value["records"] = std::move(below);
  }
  return value;
}

}  // namespace

// Read from the end, the latest call seen at a depth is the first later one.
QBVTimeProfilerRecords callTree(const std::vector<RecordedCall>& calls) {
  std::unordered_map<std::uint64_t, std::shared_ptr<QBVTimeProfilerRecord>> latest;
  QBVTimeProfilerRecords tree;
  for (auto call = calls.rbegin(); call != calls.rend(); ++call) {
    const std::shared_ptr<QBVTimeProfilerRecord> record = recordOf(*call);
    if (record->callDepth() == 0) {
      tree.push_back(record);
    } else if (const auto parent = latest.find(record->callDepth() - 1); parent != latest.end()) {
      parent->second->addSubRecord(record);
    }
    latest[record->callDepth()] = record;
  }
  std::reverse(tree.begin(), tree.end());
  return tree;
}

void appendLines(const QBVTimeProfilerRecord& record, std::string& to) {
  to += record.descriptionWithDepth() + "\n";
  if (!record.subRecords()) return;
  for (const auto& sub : *record.subRecords()) appendLines(*sub, to);
}

std::string profileText(const QBVTimeProfilerRecords& tree) {
  std::string text = "\n\nTime profile result : \n";
  double total = 0;
  for (std::size_t i = tree.size() > kMostPrinted ? tree.size() - kMostPrinted : 0; i < tree.size(); ++i) {
    appendLines(*tree[i], text);
    total += tree[i]->timeCost();
  }
  text += "\nTotal time in record:" + withTwoDecimals(total * kMillisecondsPerSecond) + "\n";
  return text + "\nTime profile end\n";
}

// Inside of the element nothing but its end tag means anything; there is no way to write "<" as such.
std::string profilePage(const std::string& text) {
  std::string page = "<h2>Quib Method Time Profiler</h2><xmp>";
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool end = endsText(std::string_view(text).substr(i, kEndOfText.size()));
    page += end ? std::string("&lt;") : std::string(1, text[i]);
  }
  return page + "</xmp>";
}

Value profileValue(const QBVTimeProfilerRecords& tree) {
  Value::Array records;
  for (const auto& record : tree) records.push_back(valueOf(*record, kLevelsForPrograms));
  return Value::Dictionary{{"records", std::move(records)}};
}

std::string withTwoDecimals(double number) {
  std::array<char, 400> digits{};
  const auto [end, error] =
      std::to_chars(digits.data(), digits.data() + digits.size(), number, std::chars_format::fixed, 2);
  return error == std::errc() ? std::string(digits.data(), end) : "0.00";
}

}  // namespace qbv
