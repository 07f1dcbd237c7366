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

TEST_F(HostAnswers, ClassesOfAHostsOwnAnswerMessages) {
  using namespace qbv::literals;
  void* const base = qbv_host_define_class("Shape", nullptr);
  void* const derived = qbv_host_define_class("Square", "Shape");
  EXPECT_EQ(qbv_host_class("Square"), derived);
  EXPECT_EQ(qbv_host_define_class("Lost", "NoSuchClass"), nullptr);
  const auto addOne = +[](void*, const void*, int value) { return value + 1; };
  EXPECT_EQ(qbv_host_add_method(base, "add:", reinterpret_cast<void (*)()>(addOne), "i@:i"), 0);
  EXPECT_EQ(qbv_host_add_class_method(base, "add:", reinterpret_cast<void (*)()>(addOne), "i@:i"), 0);
  EXPECT_EQ(qbv_host_add_method(nullptr, "add:", reinterpret_cast<void (*)()>(addOne), "i@:i"), -1);
  const auto object = static_cast<qbv::id>(qbv_host_create_object(derived));
  EXPECT_EQ(qbv_host_selector("add:"), "add:"_sel);
  EXPECT_EQ(qbv::send<int>(object, "add:"_sel, 5), 6);
  EXPECT_EQ(qbv::send<int>(static_cast<qbv::id>(derived), "add:"_sel, 6), 7)
      << "the class itself answers too";
  const auto cpp = qbv::host::defineClass("Cube", static_cast<qbv::Class>(derived))
                       .method(
                           "areaInUnit:", +[](qbv::id, qbv::SEL, double unit) { return 6 / unit; });
  EXPECT_EQ(qbv::send<double>(cpp.instance(), "areaInUnit:"_sel, 2.0), 3);
  EXPECT_EQ(qbv::send<int>(cpp.instance(), "add:"_sel, 1), 2);
}

}  // namespace
