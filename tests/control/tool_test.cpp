// The gates and the small tools.
#include "vitalscope/control/QBVTool.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/control/scripted_host.h"

namespace {

class ToolTest : public testing::Test {
 protected:
  qbv::ScriptedPlatform scripted;
  ScriptedHost host{scripted.runtime};
};

TEST_F(ToolTest, HostWithoutClassesIsNeitherLogVersionNorInternal) {
  EXPECT_FALSE(QBVTool::isLogVersion());
  EXPECT_FALSE(QBVTool::isInternalAccount());
  host.defineUser(nullptr);
  EXPECT_FALSE(QBVTool::isInternalAccount()) << "a user without e-mail";
  ScriptedHost::profile = nullptr;
  EXPECT_FALSE(QBVTool::isInternalAccount()) << "nobody signed in";
}

TEST_F(ToolTest, LogVersionIsAnyNumberButZeroAndAskedEachTime) {
  host.defineLogVersion(0);
  EXPECT_FALSE(QBVTool::isLogVersion());
  ScriptedHost::logVersion = -2;
  EXPECT_TRUE(QBVTool::isLogVersion());
  EXPECT_EQ(ScriptedHost::logVersionQuestions, 2);
}

TEST_F(ToolTest, LogVersionOfAnotherTypeThanANumberIsFalse) {
  qbv::ClassDefinition(scripted.runtime, "NSBundle")
      .classMethod(
          "isLogVersion", +[](qbv::id, qbv::SEL) -> const char* { return "YES"; });
  EXPECT_FALSE(QBVTool::isLogVersion());
}

TEST_F(ToolTest, InternalIsOneNameAtExactlyTheOwnDomain) {
  const std::string domain = qbv::mailDomain();
  const struct {
    std::string email;
    bool internal;
  } cases[] = {
      {"someone@" + domain, true},
      {"@" + domain, true},  // two parts, the first one empty
      {"someone@more@" + domain, false},
      {"someone@" + domain + "@", false},
      {"someone", false},
      {domain, false},
      {"", false},
      {"someone@mail." + domain, false},
      {"someone@" + domain + ".elsewhere", false},
      {"someone@Q" + domain.substr(1), false},  // the case counts
      {"someone@" + domain + " ", false},
  };
  host.defineUser("");
  for (const auto& [email, internal] : cases) {
    ScriptedHost::email = email.c_str();
    EXPECT_EQ(QBVTool::isInternalAccount(), internal) << email;
  }
}

TEST_F(ToolTest, EmailIsAskedOnceToTestAndOnceToFetch) {
  host.defineUser("someone@elsewhere.example");
  QBVTool::isInternalAccount();
  EXPECT_EQ(ScriptedHost::emailQuestions, 2);
}

TEST_F(ToolTest, CommandAnswersWhatWasWrittenUnlessItIsNoText) {
  scripted.processes.answer("echo", "grüße\n");
  scripted.processes.answer("binary", "\xff\xfe");
  EXPECT_EQ(QBVTool::cmd("echo 'a b' | cat"), "grüße\n");
  EXPECT_EQ(QBVTool::cmd("binary"), std::nullopt);
  EXPECT_EQ(QBVTool::cmd("false"), "");
  EXPECT_THAT(scripted.processes.commandLines(), testing::ElementsAre("echo 'a b' | cat", "binary", "false"));
}

TEST_F(ToolTest, ProcessIdIsDecimal) {
  EXPECT_EQ(QBVTool::currentProcessID(), "4242");
}

TEST_F(ToolTest, LevelOfAPathIsThatOfTheFirstWordInOrder) {
  const std::pair<const char*, int> cases[] = {
      {"/root//freeze//light/quibapp_stuck_x.hang", 1},
      {"/root/freeze/moderate/x.hang", 2},
      {"/root/freeze/heavier", 3},
      {"/root/freeze/severe/x.hang", 4},
      {"/root/freeze/freeze/x.hang", 5},
      {"/root/freeze/x.hang", 5},
      {"/lighthouse/x.hang", 1},
      {"light/x.hang", 0},
      {"/root/leaks/x.hang", 0},
      {"", 0},
  };
  for (const auto& [path, level] : cases) EXPECT_EQ(QBVTool::anrLevelWithPath(path), level) << path;
}

TEST_F(ToolTest, DictionaryTextIsCompactAndEmptyForWhatJSONCannotHold) {
  using qbv::Value;
  EXPECT_EQ(QBVTool::dictToString(Value::Dictionary{{"anrLevel", 3U}, {"a", "\"b\""}}),
            R"({"a":"\"b\"","anrLevel":3})");
  EXPECT_EQ(QBVTool::dictToString({}), "");
  EXPECT_EQ(QBVTool::dictToString(Value::Dictionary{{"when", Value::Date{}}}), "");
  EXPECT_EQ(QBVTool::dictToString("text"), "");
}

TEST_F(ToolTest, QueueLabelsBeginWithTheDomainReversed) {
  const std::string label = qbv::queueLabel("x.monitor");
  EXPECT_THAT(label, testing::EndsWith(".x.monitor"));
  const std::string domain = qbv::mailDomain();
  EXPECT_THAT(label, testing::StartsWith(domain.substr(domain.rfind('.') + 1) + "."));
  EXPECT_EQ(label.size(), domain.size() + std::string(".x.monitor").size());
}

}  // namespace
