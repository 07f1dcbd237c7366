// A dynamically typed value: the content of notifications' user info, of extra data and of records.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "vitalscope/platform/clock.h"
#include "vitalscope/platform/export.h"

namespace qbv {

// Plain value semantics; no thread safety of its own. Strings are meant to be UTF-8 but may hold any bytes.
class QBV_EXPORT Value {
 public:
  using Array = std::vector<Value>;
  using Dictionary = std::map<std::string, Value>;
  struct Date {
    AbsoluteTime time = 0;
    friend bool operator==(const Date&, const Date&) = default;
  };

  Value() = default;
  Value(bool value) : data_(value) {}
  Value(int value) : data_(std::int64_t{value}) {}
  Value(long value) : data_(std::int64_t{value}) {}
  Value(long long value) : data_(std::int64_t{value}) {}
  Value(unsigned value) : data_(std::uint64_t{value}) {}
  Value(unsigned long value) : data_(std::uint64_t{value}) {}
  Value(unsigned long long value) : data_(std::uint64_t{value}) {}
  Value(double value) : data_(value) {}
  Value(const char* text) : data_(std::string(text)) {}
  Value(std::string text) : data_(std::move(text)) {}
  Value(Date date) : data_(date) {}
  Value(Array array) : data_(std::move(array)) {}
  Value(Dictionary dictionary) : data_(std::move(dictionary)) {}

  bool isNil() const noexcept { return std::holds_alternative<std::monostate>(data_); }
  const bool* boolean() const noexcept { return std::get_if<bool>(&data_); }
  const std::string* string() const noexcept { return std::get_if<std::string>(&data_); }
  const Date* date() const noexcept { return std::get_if<Date>(&data_); }
  const Array* array() const noexcept { return std::get_if<Array>(&data_); }
  const Dictionary* dictionary() const noexcept { return std::get_if<Dictionary>(&data_); }
  Array* array() noexcept { return std::get_if<Array>(&data_); }
  Dictionary* dictionary() noexcept { return std::get_if<Dictionary>(&data_); }

  // The number's reading as such a type; 0 or false for anything that is no number. boolValue also reads
  // text: "YES", "true" (any case) and a leading digit 1 to 9 are true. longLongValue saturates.
  bool boolValue() const noexcept;
  std::int64_t longLongValue() const noexcept;
  double doubleValue() const noexcept;

  // The value under a key; nil when this is no dictionary or has no such key.
  const Value& operator[](const std::string& key) const noexcept;

  // Whether JSON can hold it: the top is an array or a dictionary, and nothing in it is a date, a number that
  // is not finite, or text that is not UTF-8. nil inside is null.
  bool isValidJSONObject() const;
  // JSON text, UTF-8, keys in ascending order; nothing when isValidJSONObject() is false.
  std::optional<std::string> jsonText(bool pretty = false) const;
  // The value of a JSON text (an array or a dictionary on top); nothing when it is not valid.
  static std::optional<Value> fromJSON(const std::string& text);

  friend bool operator==(const Value&, const Value&) = default;

 private:
  friend struct ValueJson;
  std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, Date, Array,
               Dictionary>
      data_;
};

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms). Any thread.
QBV_EXPORT bool isValidUTF8(const std::string& bytes) noexcept;
// The bytes with U+FFFD in place of each that belongs to no well-formed character. Any thread.
QBV_EXPORT std::string repairedUTF8(std::string bytes);

}  // namespace qbv
