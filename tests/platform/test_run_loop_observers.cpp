// Who is called for an activity, in which order.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

#include "tests/probes/allocation_count.h"
#include "vitalscope/platform/portable/run_loop_observers.h"

namespace qbv {
namespace {

using testing::ElementsAre;

RunLoopObservers observers;
std::vector<std::string> trace;

struct Observer {
  const char* name;
  void (*inside)() = nullptr;
};

void note(CFRunLoopObserverRef, CFRunLoopActivity activity, void* info) {
  const auto& self = *static_cast<const Observer*>(info);
  trace.push_back(self.name + std::to_string(activity));
  if (self.inside != nullptr) self.inside();
}

void add(Observer& observer, std::int64_t order, CFRunLoopActivity activities = kCFRunLoopAllActivities,
         bool repeats = true) {
  observers.add(RunLoopObservers::create(activities, repeats, order, note, &observer));
}

TEST(RunLoopObservers, AreCalledByOrderThenByAgeForTheirActivities) {
  static Observer first{"first"}, older{"older"}, younger{"younger"}, once{"once"}, last{"last"};
  EXPECT_FALSE(observers.any());
  observers.tell(kCFRunLoopEntry);
  add(last, std::numeric_limits<std::int64_t>::max());
  add(older, 5);
  add(once, 4, kCFRunLoopExit | kCFRunLoopBeforeWaiting, false);
  add(first, std::numeric_limits<std::int64_t>::min(), kCFRunLoopExit);
  add(younger, 5);
  observers.add(nullptr);
  EXPECT_TRUE(observers.any());
  observers.tell(kCFRunLoopEntry);
  EXPECT_THAT(trace, ElementsAre("older1", "younger1", "last1"));
  trace.clear();
  observers.tell(kCFRunLoopExit);
  observers.tell(kCFRunLoopExit);
  EXPECT_THAT(trace, ElementsAre("first128", "once128", "older128", "younger128", "last128", "first128",
                                 "older128", "younger128", "last128"));
}

TEST(RunLoopObservers, OneThatTurnsALoopIsNotCalledWithinItselfAndMayAddOthers) {
  static Observer added{"added"};
  static Observer turning{"turning", [] {
                            if (trace.size() == 1) add(added, 1);
                            observers.tell(kCFRunLoopBeforeTimers);
                          }};
  static Observer witness{"witness"};
  add(turning, 0);
  add(witness, 2);
  observers.tell(kCFRunLoopEntry);
  EXPECT_THAT(trace, ElementsAre("turning1", "added2", "witness2", "witness1"));
}

TEST(RunLoopObservers, TellingTakesNoMemory) {
  static int calls = 0;
  const auto count = [](CFRunLoopObserverRef, CFRunLoopActivity, void*) { ++calls; };
  for (int i = 0; i < 3; ++i)
    observers.add(RunLoopObservers::create(kCFRunLoopAllActivities, true, i, count, nullptr));
  const auto before = allocationCount();
  for (int i = 0; i < 100; ++i) observers.tell(kCFRunLoopBeforeWaiting);
  EXPECT_EQ(allocationCount(), before);
  EXPECT_EQ(calls, 300);
}

}  // namespace
}  // namespace qbv
