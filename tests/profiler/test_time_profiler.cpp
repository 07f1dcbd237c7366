// The profiler's switch, with a hook whose clock the test turns.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/profiler/hook_fixture.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/profiler/QBVTimeProfiler.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace qbv {
namespace {

using namespace literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kEmptyPage[] =
    "<h2>Quib Method Time Profiler</h2><xmp>\n\nTime profile result : \n\nTotal time in record:0.00\n"
    "\nTime profile end\n</xmp>";

class TimeProfiler : public tests::HookFixture {
 protected:
  void call(id receiver, SEL selector, std::int64_t microseconds) {
    before_objc_msgSend(receiver, selector, nullptr);
    now += microseconds;
    after_objc_msgSend();
  }
  void flip() {
    profiler_.refreshStatus();
    scripted_.runUntilIdle();
  }
  std::string page() { return scripted_.files.read(profiler_.resultFilePath()).value_or("none"); }

  ScriptedPlatform scripted_;
  const Class cls_ = scripted_.runtime.defineClass("Host", nullptr);
  const id object_ = scripted_.runtime.createInstance(cls_);
  QBVTimeProfiler& profiler_ = *QBVTimeProfiler::sharedInstance();
};

TEST_F(TimeProfiler, FlipsARunAndShowsWhatTookLong) {
  profiler_.refreshStatus();
  EXPECT_FALSE(profiler_.on());
  scripted_.runUntilIdle();
  EXPECT_TRUE(profiler_.on());
  EXPECT_EQ(scripted_.images.registrations(), 1U);
  call(object_, "exactlyAtTheLimit"_sel, 100000);
  call(object_, "slow"_sel, 100001);
  call(Runtime::classObject(cls_), "shared"_sel, 250000);
  flip();
  EXPECT_FALSE(profiler_.on());
  EXPECT_EQ(profiler_.finishedRuns(), 1U);
  EXPECT_EQ(page(),
            "<h2>Quib Method Time Profiler</h2><xmp>\n\nTime profile result : \n"
            "100.00ms| -[Host slow]\n250.00ms| +[Host shared]\n"
            "\nTotal time in record:350.00\n\nTime profile end\n</xmp>");
  EXPECT_THAT(profiler_.resultFilePath(),
              testing::EndsWith("/inspect_info_record/method_timer_profiler.html"));
  EXPECT_THAT(scripted_.files.read(profiler_.resultValuePath()).value_or(""), HasSubstr("\"shared\""));
  EXPECT_THAT(QBVTimeProfiler::getRecords(), IsEmpty()) << "forgotten after they were shown";

  EXPECT_THAT(scripted_.processes.openedFiles(), IsEmpty()) << "opening waits for the main thread";
  scripted_.runLoop.drain();
  EXPECT_THAT(scripted_.processes.openedFiles(), ElementsAre(profiler_.resultFilePath()));

  call(object_, "betweenRuns"_sel, 500000);
  flip();
  EXPECT_EQ(page(), "none") << "removed when a run begins";
  flip();
  EXPECT_EQ(page(), kEmptyPage);
}

TEST_F(TimeProfiler, SettingItOnDirectlyLeavesTheNextFlipAlone) {
  profiler_.setOn(true);
  EXPECT_FALSE(profiler_.on());
  profiler_.setOn(false);
  EXPECT_EQ(page(), kEmptyPage);
  flip();
  EXPECT_TRUE(profiler_.on());
  profiler_.setOn(false);
  EXPECT_TRUE(profiler_.on());
  flip();
  EXPECT_FALSE(profiler_.on());
}

TEST_F(TimeProfiler, SettingsAreRoundedDownAndNeverNegative) {
  const auto recordedAt = [this](double milliseconds, std::int64_t microseconds) {
    QBVTimeProfiler::setMinCallCost(milliseconds);
    QBVTimeProfiler::clearRecords();
    call(object_, "work"_sel, microseconds);
    return !QBVTimeProfiler::getRecords().empty();
  };
  EXPECT_FALSE(recordedAt(1.5009, 1500));
  EXPECT_TRUE(recordedAt(1.5009, 1501));
  for (const double nothing : {0.0, -5.0, -1e300, 0.0009}) {
    EXPECT_FALSE(recordedAt(nothing, 0)) << nothing;
    EXPECT_TRUE(recordedAt(nothing, 1)) << nothing;
  }
  EXPECT_FALSE(recordedAt(1e300, 1000000));

  QBVTimeProfiler::setMinCallCost(0);
  QBVTimeProfiler::setMaxCallDepth(-3);
  QBVTimeProfiler::clearRecords();
  before_objc_msgSend(object_, "outer"_sel, nullptr);
  before_objc_msgSend(object_, "middle"_sel, nullptr);
  call(object_, "inner"_sel, 1000);
  after_objc_msgSend();
  after_objc_msgSend();
  const std::string text = QBVTimeProfiler::getRecordsResult();
  EXPECT_THAT(text, HasSubstr("  1.00ms| -[Host outer]\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("middle")));
}

TEST_F(TimeProfiler, OfManyWhoBeginAtOnceOneBegins) {
  std::atomic<int> begun{0};
  std::atomic<int> ended{0};
  for (const bool on : {true, false}) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
      threads.emplace_back([&, on] { (on ? begun : ended) += profiler_.switchTo(on) ? 1 : 0; });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(profiler_.on(), on);
  }
  EXPECT_EQ(begun, 1);
  EXPECT_EQ(ended, 1);
  EXPECT_EQ(profiler_.finishedRuns(), 1U);
  scripted_.runLoop.drain();
  EXPECT_THAT(scripted_.processes.openedFiles(), IsEmpty()) << "whoever asks from outside has the file";
}

}  // namespace
}  // namespace qbv
