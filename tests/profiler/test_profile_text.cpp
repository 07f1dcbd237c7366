#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <clocale>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "vitalscope/profiler/profile_text.h"

namespace qbv {
namespace {

using testing::HasSubstr;
using testing::Not;

RecordedCall call(const std::string& method, std::uint64_t milliseconds, std::int32_t depth) {
  return {"Foo", method, false, milliseconds * 1000, depth};
}

std::string linesOf(const std::vector<RecordedCall>& calls) {
  std::string lines;
  for (const auto& record : callTree(calls)) appendLines(*record, lines);
  return lines;
}

TEST(ProfileText, ACallWithTwoInsideOfIt) {
  const std::vector<RecordedCall> calls{{"Bar", "parse", false, 150000, 1},
                                        {"Bar", "save", false, 120000, 1},
                                        {"Foo", "reload", false, 300000, 0}};
  EXPECT_EQ(profileText(callTree(calls)),
            "\n\nTime profile result : \n"
            "300.00ms| -[Foo reload]\n"
            "120.00ms|   -[Bar save]\n"
            "150.00ms|   -[Bar parse]\n"
            "\nTotal time in record:300.00\n"
            "\nTime profile end\n");
}

TEST(ProfileText, NothingRecorded) {
  EXPECT_EQ(profileText({}), "\n\nTime profile result : \n\nTotal time in record:0.00\n\nTime profile end\n");
}

TEST(ProfileText, LinesSayWidthDepthAndKind) {
  EXPECT_EQ(linesOf({{"A", "with:and:", true, 1500, 0}}), "  1.50ms| +[A with:and:]\n");
  EXPECT_EQ(linesOf({{"A", "b", false, 1234567, 0}}), "1234.57ms| -[A b]\n");
  QBVTimeProfilerRecord deep;
  deep.setClassName("A");
  deep.setMethodName("b");
  deep.setCallDepth(3);
  EXPECT_EQ(deep.descriptionWithDepth(), "  0.00ms|       -[A b]");
  deep.setCallDepth(std::numeric_limits<std::uint64_t>::max());
  EXPECT_LT(deep.descriptionWithDepth().size(), 10000U);
}

TEST(ProfileText, NumbersHaveAPointInEveryLocale) {
  for (const char* locale : {"de_DE.UTF-8", "fr_FR.UTF-8", ""}) std::setlocale(LC_ALL, locale);
  EXPECT_EQ(linesOf({call("a", 12, 0)}), " 12.00ms| -[Foo a]\n");
}

TEST(ProfileText, OutermostCallsStandEarliestFirstAndTheirCallsLatestFirst) {
  EXPECT_EQ(linesOf({call("c", 3, 2), call("b", 4, 1), call("d", 1, 2), call("e", 2, 2), call("f", 5, 1),
                     call("a", 9, 0), call("h", 1, 1), call("g", 2, 0)}),
            "  9.00ms| -[Foo a]\n"
            "  5.00ms|   -[Foo f]\n"
            "  2.00ms|     -[Foo e]\n"
            "  1.00ms|     -[Foo d]\n"
            "  4.00ms|   -[Foo b]\n"
            "  3.00ms|     -[Foo c]\n"
            "  2.00ms| -[Foo g]\n"
            "  1.00ms|   -[Foo h]\n");
}

TEST(ProfileText, ACallWithoutItsCallerGoesToTheNextOneThatFitsOrIsDropped) {
  EXPECT_EQ(linesOf({call("orphan", 1, 1), call("first", 2, 0), call("second", 3, 0), call("child", 1, 2),
                     call("lost", 1, 1)}),
            "  2.00ms| -[Foo first]\n"
            "  1.00ms|   -[Foo orphan]\n"
            "  3.00ms| -[Foo second]\n");
}

TEST(ProfileText, OnlyTheLastFiftyOutermostCallsArePrintedAndSummed) {
  std::vector<RecordedCall> calls;
  for (int i = 1; i <= 60; ++i) calls.push_back(call("m" + std::to_string(i), 1, 0));
  const std::string text = profileText(callTree(calls));
  EXPECT_THAT(text, Not(HasSubstr("m10]")));
  EXPECT_THAT(text, HasSubstr(": \n  1.00ms| -[Foo m11]"));
  EXPECT_THAT(text, HasSubstr("m60]"));
  EXPECT_THAT(text, HasSubstr("record:50.00\n"));
  EXPECT_THAT(profileText(callTree({calls.begin(), calls.begin() + 50})), HasSubstr("m1]"));
}

TEST(ProfileText, ManyCallsTakeNoSquareOfTheirTime) {
  std::vector<RecordedCall> calls(400000, call("child", 1, 1));
  calls.insert(calls.end(), 400000, call("outer", 1, 0));
  const QBVTimeProfilerRecords tree = callTree(calls);
  EXPECT_EQ(tree.size(), 400000U);
  EXPECT_EQ(tree[0]->subRecords()->size(), 400000U);
}

TEST(ProfilePage, NamesCannotEndItsText) {
  EXPECT_EQ(profilePage("a < b & \"c\""), "<h2>Quib Method Time Profiler</h2><xmp>a < b & \"c\"</xmp>");
  EXPECT_EQ(profilePage("-[Evil</xmp><script> </XMP >go</XmP]"),
            "<h2>Quib Method Time Profiler</h2><xmp>-[Evil&lt;/xmp><script> &lt;/XMP >go&lt;/XmP]</xmp>");
  EXPECT_EQ(profilePage("</xm </ xmp"), "<h2>Quib Method Time Profiler</h2><xmp></xm </ xmp</xmp>");
}

TEST(ProfileValue, HoldsTheTree) {
  EXPECT_EQ(profileValue(callTree({{"Bar", "parse:", true, 1500, 1}, {"Foo", "\"x\"", false, 300000, 0}}))
                .jsonText(),
            R"({"records":[{"class":"Foo","classMethod":false,"method":"\"x\"","milliseconds":300.0,)"
            R"("records":[{"class":"Bar","classMethod":true,"method":"parse:","milliseconds":1.5}]}]})");
}

TEST(ProfileValue, IsJsonWhateverTheNamesAndHoweverDeepTheCalls) {
  const auto text = [](const std::vector<RecordedCall>& calls) {
    return profileValue(callTree(calls)).jsonText().value_or("none");
  };
  EXPECT_THAT(text({{"\xc3\xb6", "\xff\xc3x", false, 1, 0}}),
              HasSubstr("\"class\":\"\xc3\xb6\",\"classMethod\":false,\"method\":\"??x\""));
  std::vector<RecordedCall> deep;
  for (std::int32_t depth = 1000; depth >= 0; --depth)
    deep.push_back(call("m" + std::to_string(depth), 1, depth));
  EXPECT_THAT(text(deep), testing::AllOf(HasSubstr("\"m199\""), Not(HasSubstr("\"m200\""))));
}

}  // namespace
}  // namespace qbv
