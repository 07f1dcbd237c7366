// What is timed and recorded.
#include <atomic>
#include <thread>

#include "tests/profiler/hook_fixture.h"

namespace qbv {
namespace {

using namespace literals;

class HookRecordsTest : public tests::HookFixture {
 protected:
  // A call of `cost` microseconds that makes no others.
  void call(std::int64_t cost) {
    before_objc_msgSend(object, selector, nullptr);
    now += cost;
    after_objc_msgSend();
  }
  void nest(int levels) {
    if (levels == 0) return;
    before_objc_msgSend(object, selector, nullptr);
    nest(levels - 1);
    now += 10;
    after_objc_msgSend();
  }
  std::vector<std::int32_t> depths() {
    std::vector<std::int32_t> found;
    for (const dtp_call_record& record : recorded()) found.push_back(record.depth);
    return found;
  }

  const Class cls = table.defineClass("Host", nullptr);
  const id object = table.createInstance(cls);
  const SEL selector = "work"_sel;
};

TEST_F(HookRecordsTest, ACallHasToTakeLongerThanTheMinimum) {
  dtp_set_min_time(1000);
  call(1000);
  EXPECT_TRUE(recorded().empty());
  call(1001);
  ASSERT_EQ(recorded().size(), 1U);
  EXPECT_EQ(recorded()[0].timeCost, 1001U);
  EXPECT_EQ(recorded()[0].cls, cls);
  EXPECT_EQ(recorded()[0].selector, selector);
  dtp_set_min_time(2000);
  before_objc_msgSend(object, selector, nullptr);
  now += 1500;
  dtp_set_min_time(1499);
  after_objc_msgSend();
  EXPECT_EQ(recorded().size(), 2U) << "what is set when the send ends counts";
}

TEST_F(HookRecordsTest, DepthsUpToOneMoreThanTheMaximumAreKept) {
  nest(14);
  EXPECT_EQ(depths(), (std::vector<std::int32_t>{10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0})) << "callees first";
  dtp_clear_call_records();
  dtp_set_max_depth(0);
  nest(3);
  EXPECT_EQ(depths(), (std::vector<std::int32_t>{0}));
  dtp_clear_call_records();
  dtp_set_max_depth(-5);
  nest(3);
  EXPECT_TRUE(depths().empty());
}

TEST_F(HookRecordsTest, ACallMayBeginInOneWindowAndEndInTheNext) {
  now = 1'700'000'099'900'000;
  call(200'000);
  ASSERT_EQ(recorded().size(), 1U);
  EXPECT_EQ(recorded()[0].timeCost, 200'000U);
}

TEST_F(HookRecordsTest, RecordsGrowWithoutLoss) {
  for (std::int64_t i = 1; i <= 5000; ++i) call(i);
  const std::vector<dtp_call_record> all = recorded();
  ASSERT_EQ(all.size(), 5000U);
  for (std::size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i].timeCost, i + 1);
}

TEST_F(HookRecordsTest, RecordsAreLentUntilTheyAreCleared) {
  std::int32_t count = -1;
  EXPECT_EQ(dtp_get_call_records(&count), nullptr);
  EXPECT_EQ(count, 0);
  call(10);
  const dtp_call_record* const records = dtp_get_call_records(nullptr);
  ASSERT_NE(records, nullptr);
  EXPECT_EQ(records[0].timeCost, 10U);
  dtp_hook_end();
  EXPECT_EQ(recorded().size(), 1U) << "the end of a run keeps them";
  dtp_clear_call_records();
  EXPECT_EQ(dtp_get_call_records(&count), nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(HookRecordsTest, NothingIsRecordedOnceTheRunHasEnded) {
  before_objc_msgSend(object, selector, nullptr);
  dtp_hook_end();
  now += 50;
  after_objc_msgSend();
  EXPECT_TRUE(recorded().empty());
  before_objc_msgSend(object, selector, nullptr);
  before_objc_msgSend(object, selector, nullptr);
  dtp_hook_begin();
  now += 50;
  after_objc_msgSend();
  after_objc_msgSend();
  EXPECT_TRUE(recorded().empty()) << "a send that began between two runs has no time";
  call(50);
  EXPECT_EQ(recorded().size(), 1U);
}

TEST_F(HookRecordsTest, StepsOfOtherThreadsPairUpAndRecordNothing) {
  std::thread([&] {
    std::vector<char> places(300);
    for (char& place : places) before_objc_msgSend(object, selector, &place);
    now += 50;
    for (auto place = places.rbegin(); place != places.rend(); ++place)
      ASSERT_EQ(after_objc_msgSend(), &*place);
    EXPECT_EQ(after_objc_msgSend(), nullptr) << "nothing lies below the first";
    EXPECT_EQ(before_objc_msgSend(nullptr, selector, nullptr)->cls, nullptr);
  }).join();
  EXPECT_TRUE(recorded().empty());
  EXPECT_EQ(after_objc_msgSend(), nullptr);
}

TEST_F(HookRecordsTest, TheEndWaitsForARecordThatIsBeingAdded) {
  // The records are freed as soon as end has returned: a late one would be written to freed memory, which the
  // sanitizers' runs see.
  std::atomic<bool> done{false};
  std::thread controller([&] {
    for (int run = 0; run < 300; ++run) {
      dtp_hook_end();
      std::int32_t count = 0;
      const dtp_call_record* const records = dtp_get_call_records(&count);
      for (std::int32_t i = 0; i < count; ++i)
        if (records[i].timeCost != 7 || records[i].cls != cls) ADD_FAILURE() << "incomplete record " << i;
      dtp_clear_call_records();
      dtp_hook_begin();
    }
    done = true;
  });
  step = 7;
  while (!done) {
    before_objc_msgSend(object, selector, nullptr);
    after_objc_msgSend();
  }
  controller.join();
}

}  // namespace
}  // namespace qbv
