#include "vitalscope/platform/value.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

namespace qbv {

namespace {

using Json = nlohmann::json;

constexpr int kDeepest = 512;

std::int64_t saturated(double value) noexcept {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (std::isnan(value)) return 0;
  if (value >= kLimit) return std::numeric_limits<std::int64_t>::max();
  if (value < -kLimit) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

bool equalsIgnoringCase(const std::string& text, const char* lower) noexcept {
  const std::size_t size = std::char_traits<char>::length(lower);
  return text.size() == size && std::equal(text.begin(), text.end(), lower, [](char a, char b) {
           return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + ('a' - 'A')) : a) == b;
         });
}

bool textIsTrue(const std::string& text) noexcept {
  return equalsIgnoringCase(text, "yes") || equalsIgnoringCase(text, "true") ||
         (!text.empty() && text[0] >= '1' && text[0] <= '9');
}

template <class... Functions>
struct Overloaded : Functions... {
  using Functions::operator()...;
};
template <class... Functions>
Overloaded(Functions...) -> Overloaded<Functions...>;

// Length of the well-formed character that begins here; 0 when there is none.
std::size_t characterLength(const unsigned char* bytes, std::size_t left) noexcept {
  const unsigned char first = bytes[0];
  if (first < 0x80) return 1;
  const std::size_t length = first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : first < 0xf5 ? 4 : 0;
  if (length == 0 || left < length) return 0;
  for (std::size_t i = 1; i < length; ++i)
    if ((bytes[i] & 0xc0) != 0x80) return 0;
  const unsigned char second = bytes[1];
  const bool overlong = (first == 0xe0 && second < 0xa0) || (first == 0xf0 && second < 0x90);
  const bool surrogate = first == 0xed && second >= 0xa0;
  const bool beyond = first == 0xf4 && second >= 0x90;
  return overlong || surrogate || beyond ? 0 : length;
}

}  // namespace

bool Value::boolValue() const noexcept {
  return std::visit(
      Overloaded{[](bool value) { return value; },  //
                 [](std::int64_t value) { return value != 0; },
                 [](std::uint64_t value) { return value != 0; }, [](double value) { return value != 0; },
                 [](const std::string& text) { return textIsTrue(text); }, [](const auto&) { return false; }},
      data_);
}

std::int64_t Value::longLongValue() const noexcept {
  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  return std::visit(Overloaded{[](bool value) -> std::int64_t { return value ? 1 : 0; },
                               [](std::int64_t value) { return value; },
                               [](std::uint64_t value) {
                                 return static_cast<std::int64_t>(std::min<std::uint64_t>(value, kMost));
                               },
                               [](double value) { return saturated(value); },
                               [](const auto&) -> std::int64_t { return 0; }},
                    data_);
}

double Value::doubleValue() const noexcept {
  return std::visit(Overloaded{[](bool value) { return value ? 1.0 : 0.0; },
                               [](std::int64_t value) { return static_cast<double>(value); },
                               [](std::uint64_t value) { return static_cast<double>(value); },
                               [](double value) { return value; },  //
                               [](const auto&) { return 0.0; }},
                    data_);
}

const Value& Value::operator[](const std::string& key) const noexcept {
  static const Value* const nil = new Value;
  const Dictionary* const entries = dictionary();
  if (entries == nullptr) return *nil;
  const auto found = entries->find(key);
  return found == entries->end() ? *nil : found->second;
}

bool isValidUTF8(const std::string& bytes) noexcept {
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = characterLength(data + at, bytes.size() - at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string repairedUTF8(std::string bytes) {
  if (isValidUTF8(bytes)) return bytes;
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::string repaired;
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t length = characterLength(data + at, bytes.size() - at);
    length == 0 ? repaired.append("\xef\xbf\xbd") : repaired.append(bytes, at, length);
    at += std::max<std::size_t>(length, 1);
  }
  return repaired;
}

// Between a Value and JSON, in both directions.
struct ValueJson {
  static bool fits(const Value& value, int depth) {
    if (depth > kDeepest) return false;
    return std::visit(Overloaded{[](double number) { return std::isfinite(number); },
                                 [](const std::string& text) { return isValidUTF8(text); },
                                 [](const Value::Date&) { return false; },
                                 [depth](const Value::Array& array) {
                                   return std::ranges::all_of(
                                       array, [depth](const Value& v) { return fits(v, depth + 1); });
                                 },
                                 [depth](const Value::Dictionary& dictionary) {
                                   return std::ranges::all_of(dictionary, [depth](const auto& entry) {
                                     return isValidUTF8(entry.first) && fits(entry.second, depth + 1);
                                   });
                                 },
                                 [](const auto&) { return true; }},
                      value.data_);
  }

  static Json from(const Value& value) {
    return std::visit(Overloaded{[](std::monostate) { return Json(nullptr); },
                                 [](const Value::Date&) { return Json(nullptr); },
                                 [](const Value::Array& array) {
                                   Json json = Json::array();
                                   for (const Value& element : array) json.push_back(from(element));
                                   return json;
                                 },
                                 [](const Value::Dictionary& dictionary) {
                                   Json json = Json::object();
                                   for (const auto& [key, element] : dictionary) json[key] = from(element);
                                   return json;
                                 },
                                 [](const auto& plain) { return Json(plain); }},
                      value.data_);
  }

  static Value to(const Json& json) {
    switch (json.type()) {
      case Json::value_t::boolean:
        return json.get<bool>();
      case Json::value_t::number_integer:
        return static_cast<long long>(json.get<std::int64_t>());
      case Json::value_t::number_unsigned:
        return unsignedNumber(json.get<std::uint64_t>());
      case Json::value_t::number_float:
        return json.get<double>();
      case Json::value_t::string:
        return json.get_ref<const std::string&>();
      case Json::value_t::array:
        return arrayOf(json);
      case Json::value_t::object:
        return dictionaryOf(json);
      default:
        return {};
    }
  }

  static Value unsignedNumber(std::uint64_t number) {
    if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
      return static_cast<long long>(number);
    return static_cast<unsigned long long>(number);
  }
  static Value arrayOf(const Json& json) {
    Value::Array array;
    for (const Json& element : json) array.push_back(to(element));
    return array;
  }
  static Value dictionaryOf(const Json& json) {
    Value::Dictionary dictionary;
    for (const auto& [key, element] : json.items()) dictionary.emplace(key, to(element));
    return dictionary;
  }
};

bool Value::isValidJSONObject() const {
  return (array() != nullptr || dictionary() != nullptr) && ValueJson::fits(*this, 1);
}

std::optional<std::string> Value::jsonText(bool pretty) const {
  if (!isValidJSONObject()) return std::nullopt;
  return ValueJson::from(*this).dump(pretty ? 2 : -1);
}

std::optional<Value> Value::fromJSON(const std::string& text) {
  bool tooDeep = false;
  // The depth of a container's start is the number of containers around it.
  const auto watchDepth = [&tooDeep](int depth, Json::parse_event_t event, const Json&) {
    const bool starts =
        event == Json::parse_event_t::array_start || event == Json::parse_event_t::object_start;
    if (starts && depth >= kDeepest) tooDeep = true;
    return !tooDeep;
  };
  const Json json = Json::parse(text, watchDepth, /*allow_exceptions=*/false);
  if (tooDeep || json.is_discarded() || !(json.is_array() || json.is_object())) return std::nullopt;
  return ValueJson::to(json);
}

}  // namespace qbv
