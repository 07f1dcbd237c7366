#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "vitalscope/platform/value.h"

namespace qbv {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(Value, JsonTextIsCompactWithKeysAscending) {
  const Value value(Value::Dictionary{
      {"b", Value::Array{1, -2, 3.5, true, Value(), "x\"\n/é"}},
      {"a", Value::Dictionary{}},
      {"B", std::numeric_limits<unsigned long>::max()},
  });
  EXPECT_EQ(value.jsonText(), R"({"B":18446744073709551615,"a":{},"b":[1,-2,3.5,true,null,"x\"\n/é"]})");
  EXPECT_EQ(Value(Value::Dictionary{{"k", Value::Array{1}}}).jsonText(true), "{\n  \"k\": [\n    1\n  ]\n}");
  EXPECT_EQ(Value(Value::Array{}).jsonText(), "[]");
}

TEST(Value, OnlyWhatJsonCanHoldIsValid) {
  EXPECT_TRUE(Value(Value::Dictionary{}).isValidJSONObject());
  for (const Value& bare : {Value(), Value(1), Value("text"), Value(true)}) {
    EXPECT_FALSE(bare.isValidJSONObject());
    EXPECT_EQ(bare.jsonText(), std::nullopt);
  }
  for (const Value& inner : {Value(Value::Date{1.0}), Value(kNaN), Value(-kInfinity), Value("\xff"),
                             Value(Value::Array{Value(Value::Date{})})}) {
    EXPECT_EQ(Value(Value::Dictionary{{"k", inner}}).jsonText(), std::nullopt);
    EXPECT_EQ(Value(Value::Array{Value::Array{inner}}).jsonText(), std::nullopt);
  }
  EXPECT_FALSE(Value(Value::Dictionary{{"\xc0\xaf", 1}}).isValidJSONObject());
}

TEST(Value, JsonIsReadBackAsItWasWritten) {
  const Value value(Value::Dictionary{
      {"array", Value::Array{Value(), false, std::numeric_limits<std::int64_t>::min(), 0.1, 1e300}},
      {"big", std::numeric_limits<unsigned long>::max()},
      {"text", std::string("nul\0 and \xf0\x9f\x98\x80", 13)},
  });
  EXPECT_EQ(Value::fromJSON(value.jsonText().value()), value);
  EXPECT_EQ(Value::fromJSON(value.jsonText(true).value()), value);
}

TEST(Value, BadJsonGivesNothing) {
  for (const char* text : {"", "1", "\"x\"", "null", "{", "[1,]", "{\"a\":1}x", "[\"\xff\"]", "[1e999]",
                           "[NaN]", "{a:1}", "[\"\\ud800\"]"})
    EXPECT_EQ(Value::fromJSON(text), std::nullopt) << text;
  const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  const auto deepest = Value::fromJSON(nested(512));
  ASSERT_TRUE(deepest);
  EXPECT_EQ(deepest->jsonText(), nested(512));
  EXPECT_FALSE(Value(Value::Array{*deepest}).isValidJSONObject());
  EXPECT_EQ(Value::fromJSON(nested(513)), std::nullopt);
  EXPECT_EQ(Value::fromJSON(nested(1000000)), std::nullopt);
  EXPECT_EQ(Value::fromJSON(std::string(1000000, '[')), std::nullopt);
}

TEST(Value, ReadingsOfNumbersAndText) {
  for (const Value& yes : {Value(true), Value(-1), Value(0.5), Value("YES"), Value("yEs"), Value("true"),
                           Value("TRUE"), Value("1"), Value("9 lives"), Value(~0ull)})
    EXPECT_TRUE(yes.boolValue());
  for (const Value& no :
       {Value(), Value(false), Value(0), Value(0.0), Value(""), Value("NO"), Value("0"), Value("01"),
        Value("yes!"), Value("truer"), Value(Value::Array{1}), Value(Value::Date{1})})
    EXPECT_FALSE(no.boolValue());

  constexpr auto kMost = std::numeric_limits<std::int64_t>::max();
  constexpr auto kLeast = std::numeric_limits<std::int64_t>::min();
  EXPECT_EQ(Value(~0ull).longLongValue(), kMost);
  EXPECT_EQ(Value(1e30).longLongValue(), kMost);
  EXPECT_EQ(Value(9223372036854775808.0).longLongValue(), kMost);
  EXPECT_EQ(Value(-kInfinity).longLongValue(), kLeast);
  EXPECT_EQ(Value(-2.9).longLongValue(), -2);
  EXPECT_EQ(Value(kNaN).longLongValue(), 0);
  EXPECT_EQ(Value("12").longLongValue(), 0);
  EXPECT_EQ(Value(true).doubleValue(), 1.0);
  EXPECT_EQ(Value(~0ull).doubleValue(), 18446744073709551616.0);

  const Value nested(Value::Dictionary{{"k", Value::Dictionary{{"n", 7}}}});
  EXPECT_EQ(nested["k"]["n"].longLongValue(), 7);
  EXPECT_TRUE(nested["x"]["n"].isNil());
}

TEST(Value, Utf8IsCheckedByteByByte) {
  for (const char* good : {"", "plain", "\xc2\x80", "\xdf\xbf", "\xe0\xa0\x80", "\xed\x9f\xbf",
                           "\xee\x80\x80", "\xef\xbf\xbf", "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"})
    EXPECT_TRUE(isValidUTF8(good));
  for (const char* bad : {"\x80", "\xc0\xaf", "\xc1\xbf", "\xc2", "\xc2 ", "\xe0\x9f\xbf", "\xed\xa0\x80",
                          "\xe2\x82", "\xe2\x82 ", "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80",
                          "\xf0\x90\x80", "\xfe", "a\xff"})
    EXPECT_FALSE(isValidUTF8(bad)) << bad;
  EXPECT_TRUE(isValidUTF8(std::string(3, '\0')));
  EXPECT_EQ(repairedUTF8("h\xc3\xb6rt"), "h\xc3\xb6rt");
  EXPECT_EQ(repairedUTF8("a\xffz\xe2\x82"), "a\xef\xbf\xbdz\xef\xbf\xbd\xef\xbf\xbd");
}

}  // namespace
}  // namespace qbv
