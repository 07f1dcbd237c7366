#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

using ::testing::ElementsAre;

TEST(Notifications, ObserversAreCalledInOrderOnThePostingThread) {
  NotificationTable centre;
  std::vector<std::string> calls;
  std::thread::id thread;
  centre.addObserver("name", [&](const Notification& n) { calls.push_back("1" + n.name); });
  centre.addObserver("other", [&](const Notification&) { calls.push_back("other"); });
  centre.addObserver("name", [&](const Notification& n) {
    calls.push_back("2" + std::to_string(n.userInfo["key"].longLongValue()));
    thread = std::this_thread::get_id();
  });
  std::thread poster([&] { centre.post("name", Value::Dictionary{{"key", 7}}); });
  const std::thread::id posterId = poster.get_id();
  poster.join();
  centre.post("nobody listens");
  EXPECT_THAT(calls, ElementsAre("1name", "27"));
  EXPECT_EQ(thread, posterId);
}

TEST(Notifications, ObserversMayPostAndObserve) {
  NotificationTable centre;
  int late = 0;
  int nested = 0;
  centre.addObserver("a", [&](const Notification&) {
    centre.addObserver("a", [&](const Notification&) { ++late; });
    centre.post("b");
  });
  centre.addObserver("b", [&](const Notification&) { ++nested; });
  centre.post("a");
  EXPECT_EQ(nested, 1);
  EXPECT_EQ(late, 0) << "an observer added meanwhile is not called for this notification";
  centre.post("a");
  EXPECT_EQ(late, 1);
}

TEST(Notifications, ThreadsMayPostWhileOthersObserve) {
  NotificationTable centre;
  std::atomic<int> calls{0};
  constexpr int kRounds = 200;
  std::thread observer([&] {
    for (int i = 0; i < kRounds; ++i) centre.addObserver("n", [&](const Notification&) { ++calls; });
  });
  std::thread poster([&] {
    for (int i = 0; i < kRounds; ++i) centre.post("n");
  });
  observer.join();
  poster.join();
  const int before = calls;
  centre.post("n");
  EXPECT_EQ(calls - before, kRounds);
}

TEST(Notifications, CentresAreApartAndTheScriptedOnesRemember) {
  ScriptedPlatform scripted;
  int calls = 0;
  platform().notifications.defaultCenter().addObserver("n", [&](const Notification&) { ++calls; });
  platform().notifications.workspaceCenter().post("n");
  EXPECT_EQ(calls, 0);
  platform().notifications.defaultCenter().post("n", Value::Dictionary{{"a", 1}});
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(scripted.notifications.defaultCenter().posted().at(0).userInfo["a"], Value(1));
  EXPECT_EQ(scripted.notifications.defaultCenter().observerCount("n"), 1u);
  EXPECT_EQ(scripted.notifications.workspaceCenter().posted().size(), 1u);
}

}  // namespace
}  // namespace qbv
