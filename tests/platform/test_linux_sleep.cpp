#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "tests/platform/private_bus.h"
#include "vitalscope/platform/linux/sleep_state.h"
#include "vitalscope/platform/platform.h"

struct sd_bus;

namespace qbv::linux_backend {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using enum SleepEvent;

constexpr std::int64_t kSecond = 1'000'000'000;

TEST(SleepState, ClocksAloneTellASleepAfterwards) {
  SleepState state(5 * kSecond);
  EXPECT_THAT(state.looked(5 * kSecond + 1'000'000), IsEmpty());
  EXPECT_THAT(state.looked(65 * kSecond), ElementsAre(willSleep, didWake));
  EXPECT_THAT(state.looked(65 * kSecond), IsEmpty());
  EXPECT_THAT(state.looked(64 * kSecond), IsEmpty()) << "a reading that was held up";
  EXPECT_THAT(state.looked(65 * kSecond), ElementsAre(willSleep, didWake)) << "one second of sleep";
  std::int64_t lead = 65 * kSecond;
  for (int look = 0; look < 1000; ++look) EXPECT_THAT(state.looked(lead += 1'000'000), IsEmpty());
}

TEST(SleepState, AnnouncedSleepIsToldOnce) {
  SleepState state(0);
  EXPECT_THAT(state.announced(true, 0), ElementsAre(willSleep));
  EXPECT_THAT(state.announced(true, 0), IsEmpty());
  EXPECT_THAT(state.looked(60 * kSecond), IsEmpty()) << "the clocks were faster than the bus";
  EXPECT_THAT(state.announced(false, 60 * kSecond), ElementsAre(didWake));
  EXPECT_THAT(state.announced(false, 60 * kSecond), IsEmpty());

  EXPECT_THAT(state.announced(true, 60 * kSecond), ElementsAre(willSleep));
  EXPECT_THAT(state.announced(false, 90 * kSecond), ElementsAre(didWake));
  EXPECT_THAT(state.looked(90 * kSecond), IsEmpty()) << "the bus was faster than the clocks";
}

TEST(SleepState, MachineIsNotLeftAsleep) {
  SleepState state(0);
  state.announced(true, 0);
  for (int look = 0; look < 10; ++look) EXPECT_THAT(state.looked(0), IsEmpty()) << "on its way to sleep";
  EXPECT_THAT(state.looked(60 * kSecond), IsEmpty());
  EXPECT_THAT(state.looked(60 * kSecond), IsEmpty());
  EXPECT_THAT(state.looked(60 * kSecond), ElementsAre(didWake)) << "nobody said that it is over";

  state.announced(true, 60 * kSecond);
  EXPECT_THAT(state.lostLoginManager(), ElementsAre(didWake));
  EXPECT_THAT(state.lostLoginManager(), IsEmpty());
}

// Someone on the bus who can send the login manager's signal.
class Announcer {
 public:
  // Waits for the bus to come up. `name`: null for none.
  explicit Announcer(const char* name) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(50);
    while (function<int(sd_bus**)>("sd_bus_open_system")(&bus_) < 0 && std::chrono::steady_clock::now() < end)
      usleep(10000);
    if (name == nullptr) return;
    EXPECT_GE(function<int(sd_bus*, const char*, std::uint64_t)>("sd_bus_request_name")(bus_, name, 0), 0);
  }
  void prepareForSleep(bool sleeping) {
    EXPECT_GE(function<int(sd_bus*, const char*, const char*, const char*, const char*, ...)>(
                  "sd_bus_emit_signal")(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                                        "PrepareForSleep", "b", sleeping ? 1 : 0),
              0);
    EXPECT_GE(function<int(sd_bus*)>("sd_bus_flush")(bus_), 0);
  }

 private:
  template <class Signature>
  static Signature* function(const char* name) {
    static void* const library = dlopen("libsystemd.so.0", RTLD_NOW);
    return reinterpret_cast<Signature*>(dlsym(library, name));
  }
  sd_bus* bus_ = nullptr;  // stays connected to the end
};

class SleepWatch : public testing::Test {
 protected:
  void observe() {
    NotificationCentre& machine = platform().notifications.workspaceCenter();
    for (const char* const name : {NSWorkspaceWillSleepNotification, NSWorkspaceDidWakeNotification})
      machine.addObserver(name, [this](const Notification& event) {
        const std::lock_guard lock(mutex_);
        heard_.push_back(event.name);
        changed_.notify_all();
      });
  }
  bool hears(std::size_t count, std::chrono::milliseconds patience = std::chrono::seconds(50)) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, patience, [&] { return heard_.size() >= count; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> heard_;
};

TEST_F(SleepWatch, FollowsTheLoginManagerOfTheSystemBus) {
  PrivateBus bus("DBUS_SYSTEM_BUS_ADDRESS");
  Announcer loginManager("org.freedesktop.login1");
  Announcer impostor(nullptr);
  observe();
  // The watch connects in its own time.
  do {
    impostor.prepareForSleep(false);
    impostor.prepareForSleep(true);
    loginManager.prepareForSleep(true);
  } while (!hears(1, std::chrono::milliseconds(50)));
  impostor.prepareForSleep(false);
  loginManager.prepareForSleep(true);
  loginManager.prepareForSleep(false);
  ASSERT_TRUE(hears(2));
  loginManager.prepareForSleep(true);
  ASSERT_TRUE(hears(3));
  bus.end();
  ASSERT_TRUE(hears(4));
  const std::lock_guard lock(mutex_);
  EXPECT_THAT(heard_, ElementsAre(NSWorkspaceWillSleepNotification, NSWorkspaceDidWakeNotification,
                                  NSWorkspaceWillSleepNotification, NSWorkspaceDidWakeNotification));
}

}  // namespace
}  // namespace qbv::linux_backend
