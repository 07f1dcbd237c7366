#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/quibvitalscope/profile_view.h"

namespace qbv::cli {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kFile[] =
    R"({"records":[{"class":"Foo","classMethod":false,"method":"reload","milliseconds":300.0,"records":[)"
    R"({"class":"Bar","classMethod":false,"method":"save","milliseconds":120.0},)"
    R"({"class":"Bar","classMethod":false,"method":"parse","milliseconds":150.0}]},)"
    R"({"class":"Foo","classMethod":true,"method":"shared","milliseconds":101.25}]})";

std::vector<ProfiledCall> calls(const std::string& text) {
  std::string error;
  const auto parsed = parseProfile(text, error);
  EXPECT_TRUE(parsed) << error;
  return parsed.value_or(std::vector<ProfiledCall>());
}

TEST(ProfileView, TreeShowsWhatThePageShows) {
  EXPECT_EQ(profileTree(calls(kFile)),
            "300.00ms| -[Foo reload]\n"
            "120.00ms|   -[Bar save]\n"
            "150.00ms|   -[Bar parse]\n"
            "101.25ms| +[Foo shared]\n"
            "\nTotal time in record:401.25\n");
}

TEST(ProfileView, FoldedStacksHoldWhatWasSpentInThemAlone) {
  EXPECT_EQ(profileFolded(calls(kFile)),
            "+[Foo shared] 101250\n"
            "-[Foo reload] 30000\n"
            "-[Foo reload];-[Bar parse] 150000\n"
            "-[Foo reload];-[Bar save] 120000\n");
}

// Each call returns before its caller does, and times never go back.
void expectProperlyNested(const nlohmann::json& profile) {
  std::vector<int> open;
  double last = profile["startValue"];
  for (const auto& event : profile["events"]) {
    EXPECT_GE(event["at"].get<double>(), last);
    last = event["at"];
    if (event["type"] == "O") {
      open.push_back(event["frame"]);
    } else {
      ASSERT_FALSE(open.empty());
      EXPECT_EQ(open.back(), event["frame"]);
      open.pop_back();
    }
  }
  EXPECT_THAT(open, IsEmpty());
  EXPECT_LE(last, profile["endValue"].get<double>());
}

TEST(ProfileView, SpeedscopeFileTellsCallsInTheOrderOfTheirTime) {
  const auto file = nlohmann::json::parse(profileSpeedscope(calls(kFile), "process 42"));
  EXPECT_EQ(file["$schema"], "https://www.speedscope.app/file-format-schema.json");
  const auto& profile = file["profiles"][0];
  EXPECT_EQ(profile["type"], "evented");
  expectProperlyNested(profile);
  const auto nameAt = [&](std::size_t event) {
    return file["shared"]["frames"][profile["events"][event]["frame"].get<std::size_t>()]["name"];
  };
  EXPECT_EQ(nameAt(0), "-[Foo reload]");
  EXPECT_EQ(nameAt(1), "-[Bar parse]");
  EXPECT_EQ(profile["events"][3]["at"], 150.0);
  EXPECT_EQ(nameAt(3), "-[Bar save]");
  EXPECT_EQ(profile["events"][5]["at"], 300.0);
  EXPECT_EQ(profile["endValue"], 401.25);
}

TEST(ProfileView, ACallThatStandsBelowAShorterOneStillNests) {
  const auto file = nlohmann::json::parse(profileSpeedscope(
      calls(
          R"({"records":[{"class":"A","method":"b","milliseconds":100,"records":[{"class":"C","method":"d",)"
          R"("milliseconds":500}]}]})"),
      "x"));
  expectProperlyNested(file["profiles"][0]);
  EXPECT_EQ(file["profiles"][0]["endValue"], 500.0);
}

TEST(ProfileView, NamesCannotCommandTheTerminalOrSplitAStack) {
  const auto hostile =
      calls("{\"records\":[{\"class\":\"A;B\",\"method\":\"x\\u001b[2Jy\\n\",\"milliseconds\":1}]}");
  EXPECT_EQ(profileFolded(hostile), "-[A,B x?[2Jy?] 1000\n");
}

TEST(ProfileView, OtherFilesAreRefused) {
  for (const char* text : {"", "[]", "{}", "{\"records\":1}", "{\"records\":[{}]}", "{\"records\":[1]}",
                           "{\"records\":[{\"milliseconds\":\"1\"}]}"}) {
    std::string error;
    EXPECT_FALSE(parseProfile(text, error)) << text;
    EXPECT_THAT(error, HasSubstr("no profile"));
  }
  EXPECT_THAT(calls("{\"records\":[]}"), IsEmpty());
}

}  // namespace
}  // namespace qbv::cli
