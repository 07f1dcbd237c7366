#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "host/quibvitalscope_host.h"
#include "host/quibvitalscope_host.hpp"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

class HostAnswers : public testing::Test {
 protected:
  qbv::ScriptedPlatform scripted;
  qbv::Runtime& runtime() { return qbv::platform().runtime; }
  qbv::id hostClass(const char* name) { return qbv::Runtime::classObject(runtime().NSClassFromString(name)); }
};

TEST_F(HostAnswers, GatesFollowTheEmailAndTheLogSwitchEachTimeTheyAsk) {
  EXPECT_FALSE(QBVTool::isInternalAccount());
  qbv_host_set_email("ada@" QBV_MAIL_DOMAIN);
  EXPECT_TRUE(QBVTool::isInternalAccount());
  qbv_host_set_email("ada@elsewhere.example");
  EXPECT_FALSE(QBVTool::isInternalAccount());
  qbv_host_set_email(nullptr);
  EXPECT_FALSE(QBVTool::isInternalAccount());

  static int keepsLogs = 0;
  EXPECT_FALSE(QBVTool::isLogVersion());
  qbv_host_answer_keeps_logs([](void* context) { return *static_cast<int*>(context); }, &keepsLogs);
  EXPECT_FALSE(QBVTool::isLogVersion());
  keepsLogs = 1;
  EXPECT_TRUE(QBVTool::isLogVersion());
}

TEST_F(HostAnswers, WhatIsNotSaidStaysUnsaid) {
  qbv_host_set_email("ada@example.org");
  const qbv::id adapter = hostClass("QBKXAppInterfaceAdapter");
  ASSERT_NE(adapter, nullptr);
  EXPECT_FALSE(
      runtime().respondsToSelector(adapter, runtime().NSSelectorFromString("sharedKXAppHelperInstance")));
  EXPECT_EQ(runtime().NSClassFromString("NSBundle"), nullptr);
  EXPECT_EQ(runtime().NSClassFromString("QBCrashReportHelper"), nullptr);

  qbv_host_set_call_status(2);
  const qbv::id helper = qbv::send<qbv::id>(runtime(), adapter, "sharedKXAppHelperInstance");
  EXPECT_EQ(qbv::sendInteger(runtime(), helper, "getCallStatus"), 2);
}

TEST_F(HostAnswers, UploadHelperGetsRequestsAndFeedback) {
  static std::vector<std::string> calls;
  qbv_host_set_upload_helper(
      [](void* context, int userUpload) -> const char* {
        calls.push_back(userUpload != 0 ? "user" : "automatic");
        return static_cast<const char*>(context);
      },
      [](void*, const char* json) { calls.push_back(json); }, const_cast<char*>("id-7"));
  const qbv::id helper = qbv::send<qbv::id>(runtime(), hostClass("QBCrashReportHelper"), "sharedInstance");
  ASSERT_NE(helper, nullptr);
  EXPECT_STREQ(qbv::send<const char*>(runtime(), helper, "uploadPerformanceDumpFile:", true), "id-7");
  qbv::send<void>(runtime(), helper, "responseDumpFileUploaded:", static_cast<const char*>("{}"));
  EXPECT_EQ(calls, (std::vector<std::string>{"user", "{}"}));
}

TEST_F(HostAnswers, PostsNotificationsWithADictionaryAndRefusesAnythingElse) {
  std::vector<qbv::Value> seen;
  qbv::platform().notifications.defaultCenter().addObserver(
      "ping", [&](const qbv::Notification& notification) { seen.push_back(notification.userInfo); });
  EXPECT_EQ(qbv_host_post("ping", nullptr), 0);
  EXPECT_EQ(qbv_host_post("ping", R"({"enable": true})"), 0);
  EXPECT_EQ(qbv_host_post("ping", "[1]"), -1);
  EXPECT_EQ(qbv_host_post("ping", "{"), -1);
  EXPECT_EQ(qbv_host_post(nullptr, nullptr), -1);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_TRUE(seen[0].isNil());
  EXPECT_TRUE(seen[1]["enable"].boolValue());
}

}  // namespace
