#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "host/standin/activity.h"
#include "tests/end_to_end/virtual_display.h"

namespace {

using qbv::standin::ActivityFacts;
using qbv::standin::isActive;
using testing::ElementsAre;

constexpr int kSelf = 4711;
constexpr int kOther = 4712;

TEST(Activity, IsWhatTheWindowManagerSaysWhereItCanKnow) {
  EXPECT_TRUE(isActive({}, kSelf)) << "no window manager";
  EXPECT_TRUE(isActive({.windowManager = true, .activeProcess = kSelf}, kSelf));
  EXPECT_FALSE(isActive({.windowManager = true, .activeProcess = kOther}, kSelf));
  EXPECT_FALSE(isActive({.windowManager = true}, kSelf)) << "no window is active";
  EXPECT_TRUE(isActive({.windowManager = true, .waylandSession = true}, kSelf))
      << "its windows may be ones that the display knows nothing of";
  EXPECT_FALSE(isActive({.windowManager = true, .waylandSession = true, .ownsWindow = true}, kSelf));
  EXPECT_FALSE(isActive(
      {.windowManager = true, .activeProcess = kOther, .waylandSession = true, .ownsWindow = true}, kSelf));
}

// Notes what a window manager notes, and makes windows for it.
class WindowManager {
 public:
  explicit WindowManager(const std::string& display) : x_(xcb_connect(display.c_str(), nullptr)) {
    root_ = xcb_setup_roots_iterator(xcb_get_setup(x_)).data->root;
  }
  ~WindowManager() { xcb_disconnect(x_); }
  // `processId` 0: a window that does not say whose it is.
  xcb_window_t window(int processId) {
    const xcb_window_t made = xcb_generate_id(x_);
    xcb_create_window(x_, 0, made, root_, 0, 0, 10, 10, 0, XCB_WINDOW_CLASS_INPUT_ONLY, 0, 0, nullptr);
    if (processId != 0) set(made, "_NET_WM_PID", XCB_ATOM_CARDINAL, {static_cast<std::uint32_t>(processId)});
    return made;
  }
  void activate(xcb_window_t window) { set(root_, "_NET_ACTIVE_WINDOW", XCB_ATOM_WINDOW, {window}); }
  void list(const std::vector<xcb_window_t>& windows) {
    set(root_, "_NET_CLIENT_LIST", XCB_ATOM_WINDOW, windows);
  }
  void leave() {
    xcb_delete_property(x_, root_, atom("_NET_ACTIVE_WINDOW"));
    xcb_flush(x_);
  }

 private:
  xcb_atom_t atom(const char* name) {
    xcb_intern_atom_reply_t* const reply = xcb_intern_atom_reply(
        x_, xcb_intern_atom(x_, 0, static_cast<std::uint16_t>(std::strlen(name)), name), nullptr);
    const xcb_atom_t found = reply->atom;
    std::free(reply);
    return found;
  }
  void set(xcb_window_t window, const char* property, xcb_atom_t type,
           const std::vector<std::uint32_t>& values) {
    xcb_change_property(x_, XCB_PROP_MODE_REPLACE, window, atom(property), type, 32,
                        static_cast<std::uint32_t>(values.size()), values.data());
    xcb_flush(x_);
  }

  xcb_connection_t* const x_;
  xcb_window_t root_;
};

class ActivityWatch : public testing::Test {
 protected:
  ~ActivityWatch() override {
    display_.end();
    if (thread_.joinable()) thread_.join();
  }
  void watch(bool waylandSession) {
    thread_ = std::thread([this, waylandSession] {
      qbv::standin::watchActivity(
          display_.name().c_str(), kSelf, waylandSession, [this](bool active, const char* source) {
            const std::lock_guard lock(mutex_);
            reports_.push_back(std::string(active ? "active: " : "inactive: ") + source);
            changed_.notify_all();
          });
    });
  }
  // Waits for so many reports; the newest of them.
  std::string report(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(50), [&] { return reports_.size() >= count; });
    return reports_.size() == count ? reports_.back() : "there are " + std::to_string(reports_.size());
  }

  e2e::VirtualDisplay display_;  // without a window manager
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> reports_;
  std::thread thread_;
};

TEST_F(ActivityWatch, FollowsTheActiveWindowFromOneWindowManagerToNone) {
  WindowManager manager(display_.name());
  const xcb_window_t own = manager.window(kSelf);
  const xcb_window_t foreign = manager.window(kOther);
  const xcb_window_t nobodys = manager.window(0);
  watch(false);
  EXPECT_EQ(report(1), "active: always");
  manager.activate(foreign);
  EXPECT_EQ(report(2), "inactive: window manager");
  manager.activate(own);
  EXPECT_EQ(report(3), "active: window manager");
  manager.activate(nobodys);
  EXPECT_EQ(report(4), "inactive: window manager");
  manager.activate(own);
  EXPECT_EQ(report(5), "active: window manager");
  manager.activate(0);
  EXPECT_EQ(report(6), "inactive: window manager");
  manager.activate(0xdeadbee);
  manager.leave();
  EXPECT_EQ(report(7), "active: always");
  manager.activate(foreign);
  EXPECT_EQ(report(8), "inactive: window manager");
  display_.end();
  EXPECT_EQ(report(9), "active: always") << "a lost display";
  thread_.join();
}

TEST_F(ActivityWatch, InAWaylandSessionOnlyProcessesWithWindowsHereCanBeBehind) {
  WindowManager manager(display_.name());
  const xcb_window_t foreign = manager.window(kOther);
  const xcb_window_t own = manager.window(kSelf);
  manager.list({foreign});
  manager.activate(foreign);
  watch(true);
  EXPECT_EQ(report(1), "active: window manager");
  manager.list({foreign, own});
  EXPECT_EQ(report(2), "inactive: window manager");
  manager.activate(own);
  EXPECT_EQ(report(3), "active: window manager");
}

TEST(Activity, IsAlwaysThereWithoutADisplay) {
  std::vector<std::string> reports;
  const auto note = [&](bool active, const char* source) {
    reports.push_back(std::string(active ? "active: " : "inactive: ") + source);
  };
  qbv::standin::watchActivity(":4294967", kSelf, false, note);
  unsetenv("DISPLAY");
  qbv::standin::startActivityWatch(note);
  EXPECT_THAT(reports, ElementsAre("active: always", "active: always"));
}

}  // namespace
