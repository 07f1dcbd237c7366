// The dashboard window: toggling, colours, labels, clicks.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vitalscope/control/load.h"
#include "vitalscope/dashboard/QBVitalscopeDashboard.h"
#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

using qbv::NSColor;
using qbv::NSRect;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr qbv::WindowNumber kWindow = 1;

class DashboardTest : public testing::Test {
 protected:
  void settle() {
    while (scripted.runUntilIdle() || scripted.runLoop.drain()) {
    }
  }
  void show() {
    dashboard->setup();
    settle();
  }
  void tell(double megabytes) {
    dashboard->qbvMemoryUsage(megabytes);
    settle();
  }
  void click(double seconds) {
    scripted.windows.press(kWindow, {50, 50});
    scripted.clock.advance(seconds);
    scripted.windows.release(kWindow, {50, 50});
    settle();
  }
  const qbv::WindowState& window() const { return scripted.windows.window(kWindow).state; }
  std::vector<std::string> texts() const {
    std::vector<std::string> found;
    for (const qbv::PictureItem& item : window().picture)
      if (item.kind == qbv::PictureItem::Kind::text) found.push_back(item.text);
    return found;
  }

  qbv::ScriptedPlatform scripted;
  std::shared_ptr<QBVitalscopeDashboard> dashboard = std::make_shared<QBVitalscopeDashboard>();
};

TEST_F(DashboardTest, StandsAtTheScreensRightEdgeAndTakesNoFocus) {
  EXPECT_EQ(dashboard->threshold(), 0);
  show();
  EXPECT_EQ(dashboard->threshold(), 1024);
  EXPECT_EQ(window().frame, (NSRect{{1340, 450}, {100, 100}}));
  EXPECT_TRUE(window().visible);
  EXPECT_TRUE(window().key);
  const qbv::WindowTraits expected{
      128, qbv::NSBackingStoreType::buffered, false, NSColor::clearColor(), 21, true, true};
  EXPECT_EQ(window().traits, expected);
}

TEST_F(DashboardTest, BuildsItsElementsOnceWhicheverIsAskedForFirst) {
  const auto button = dashboard->dashboardButton();
  const auto gauge = dashboard->memoryWaveView();
  EXPECT_EQ(button->superview(), gauge.get());
  EXPECT_EQ(button->frame(), (NSRect{{0, 0}, {100, 100}}));
  EXPECT_THAT(gauge->subviews(), ElementsAre(dashboard->memoryLabel(), dashboard->cpuUsageLabel(),
                                             dashboard->dashboardButton()));
  EXPECT_THAT(gauge->layer()->sublayers(), ElementsAre(dashboard->waveLayer()));
  EXPECT_EQ(dashboard->dashboardButton(), button) << "none is built twice";
  EXPECT_EQ(gauge->layer()->cornerRadius(), 50);
  EXPECT_EQ(gauge->layer()->borderColor(), NSColor::clearColor());
  EXPECT_EQ(dashboard->waveLayer()->frame(), (NSRect{{0, 0}, {100, 100}}));
  EXPECT_EQ(dashboard->memoryLabel()->frame(), (NSRect{{0, 50}, {100, 20}}));
  EXPECT_EQ(dashboard->cpuUsageLabel()->frame(), (NSRect{{0, 15}, {100, 20}}));
  EXPECT_EQ(dashboard->memoryLabel()->font().pointSize, 17);
  EXPECT_EQ(dashboard->cpuUsageLabel()->font().pointSize, 13);
}

TEST_F(DashboardTest, ColoursFollowTheFootprint) {
  show();
  EXPECT_EQ(dashboard->memoryStatus(), -1);
  const struct {
    double megabytes;
    NSColor color;
    int status;
  } cases[] = {{599.99, NSColor::greenColor(), 0},
               {600.00, NSColor::yellowColor(), 1},
               {1023.99, NSColor::yellowColor(), 1},
               {1024.00, NSColor::redColor(), 2}};
  for (const auto& [megabytes, color, status] : cases) {
    tell(megabytes);
    EXPECT_EQ(dashboard->memory(), megabytes);
    EXPECT_EQ(dashboard->memoryStatus(), status) << megabytes;
    EXPECT_EQ(dashboard->waveLayer()->backgroundColor(), color.colorWithAlphaComponent(0.6)) << megabytes;
    EXPECT_EQ(dashboard->memoryWaveView()->layer()->borderColor(), color.colorWithAlphaComponent(0.6));
    EXPECT_EQ(dashboard->waveLayer()->targetValue(), megabytes);
    EXPECT_EQ(dashboard->waveLayer()->totalValue(), 1024);
  }
}

TEST_F(DashboardTest, ColoursOnlyWhenTheStatusChangesAndAnewAfterEachShowing) {
  show();
  tell(100);
  dashboard->waveLayer()->setBackgroundColor(NSColor::blackColor());
  tell(200);
  EXPECT_EQ(dashboard->waveLayer()->backgroundColor(), NSColor::blackColor());
  dashboard->setup();
  dashboard->setup();
  tell(200);
  EXPECT_EQ(dashboard->waveLayer()->backgroundColor(), NSColor::greenColor().colorWithAlphaComponent(0.6));
}

TEST_F(DashboardTest, WritesFootprintAndCpuUse) {
  scripted.task.addThread(7, 126);
  show();
  EXPECT_THAT(texts(), IsEmpty());
  tell(512.126);
  EXPECT_THAT(texts(), ElementsAre("512.13M", "CPU:13%"));
  scripted.task.fail(qbv::TaskCall::task_threads);
  tell(0);
  EXPECT_THAT(texts(), ElementsAre("0.00M", "CPU:-1%")) << "a failed reading is shown as it is";
}

TEST_F(DashboardTest, IgnoresFootprintsWhileHidden) {
  tell(700);
  EXPECT_EQ(dashboard->memory(), 0);
  show();
  tell(700);
  dashboard->setup();
  settle();
  EXPECT_FALSE(dashboard->isShow());
  EXPECT_FALSE(window().visible);
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 0u) << "nothing moves while it is hidden";
  tell(2000);
  EXPECT_EQ(dashboard->memory(), 700);
  EXPECT_EQ(dashboard->memoryStatus(), 1);
}

TEST_F(DashboardTest, ANewGaugeTakesTheOldPiecesIn) {
  show();
  const auto gauge = dashboard->memoryWaveView();
  const auto label = dashboard->memoryLabel();
  dashboard->setup();
  EXPECT_EQ(gauge->superview(), nullptr);
  dashboard->setup();
  EXPECT_NE(dashboard->memoryWaveView(), gauge);
  EXPECT_EQ(label->superview(), dashboard->memoryWaveView().get());
  EXPECT_THAT(gauge->subviews(), IsEmpty());
  EXPECT_THAT(gauge->layer()->sublayers(), IsEmpty());
  EXPECT_EQ(scripted.windows.windows().size(), 1u);
  const auto areas = dashboard->dashboardButton()->trackingAreas();
  ASSERT_EQ(areas.size(), 2u) << "earlier areas are not removed";
  EXPECT_EQ(areas[0].options, 17u);
  EXPECT_EQ(areas[0].rect, dashboard->dashboardButton()->bounds());
}

TEST_F(DashboardTest, TheMonitorTellsItOncePerShowing) {
  show();
  dashboard->setup();
  show();
  EXPECT_THAT(QBVitalscopeMemoryMonitor::sharedInstance()->delegateObjects(),
              ElementsAre(dashboard, dashboard));
  scripted.task.setFootprintMegabytes(640);
  QBVitalscopeMemoryMonitor::isOutOfMemory();
  EXPECT_EQ(dashboard->memory(), 640);
}

TEST_F(DashboardTest, AShortClickOpensTheNewestReport) {
  show();
  click(0.1);
  EXPECT_THAT(scripted.processes.openedFiles(), IsEmpty()) << "there is no report";
  const std::string folder = QBVitalscopeReport::sharedInstance()->localLogFolderRootPath() + "/freeze/light";
  scripted.files.createDirectory(folder);
  for (const char* const name :
       {"/quibapp_stuck_2.hang", "/quibapp_stuck_1.hang", "/quibapp_stuck_1_sample.hang",
        "/2026_11_23_inspect_info_record.hang", "/quibapp_newer.txt"}) {
    scripted.files.writeAtomically(folder + name, "text");
    scripted.clock.advance(60);
  }
  click(0.5);
  EXPECT_THAT(scripted.processes.openedFiles(), IsEmpty()) << "that was no click";
  click(0.19);
  EXPECT_THAT(scripted.processes.openedFiles(), ElementsAre(folder + "/quibapp_stuck_1.hang"));
}

TEST_F(DashboardTest, HidesWhenItsDisplayIsGoneAndShowsOnTheNextToggle) {
  show();
  tell(640);
  scripted.windows.loseDisplay();
  EXPECT_FALSE(dashboard->isShow());
  EXPECT_EQ(scripted.dispatch.liveTimerCount(), 0u);
  scripted.windows.setMainScreenFrame({{0, 0}, {800, 600}});
  show();
  EXPECT_EQ(scripted.windows.windows().size(), 1u);
  EXPECT_EQ(scripted.windows.window(2).state.frame, (NSRect{{700, 300}, {100, 100}}));
}

TEST_F(DashboardTest, ManyChangesMakeOnePictureATurn) {
  show();
  const unsigned before = scripted.windows.window(kWindow).presentations;
  dashboard->qbvMemoryUsage(300);
  scripted.runLoop.drainAll();
  EXPECT_LE(scripted.windows.window(kWindow).presentations, before + 2);
  ASSERT_FALSE(window().picture.empty());
  EXPECT_EQ(window().picture.front().clipRadius, 50) << "the liquid stays within the gauge";
  EXPECT_EQ(window().picture.back().kind, qbv::PictureItem::Kind::border) << "the border lies on top";
}

TEST_F(DashboardTest, TheNotificationAndTheLaunchDurationReachTheSharedDashboard) {
  scripted.task.setProcessStartTimeMilliseconds((scripted.clock.kStart + 978307200.0 - 2.5) * 1000);
  qbv::load();
  settle();
  QBVitalscopeDashboard* const shared = QBVitalscopeDashboard::sharedInstance();
  EXPECT_NEAR(shared->launchTime(), 2.5, 1e-3);
  const auto toggle = [&] { scripted.notifications.defaultCenter().post("performance_dashboard"); };
  toggle();
  EXPECT_TRUE(shared->isShow());
  EXPECT_EQ(scripted.windows.preparations(), 1u);
  toggle();
  EXPECT_FALSE(shared->isShow());
}

}  // namespace
