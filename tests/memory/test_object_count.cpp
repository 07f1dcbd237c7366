#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "vitalscope/memory/QBObjectAllocMonitor.h"
#include "vitalscope/platform/live_objects.h"
#include "vitalscope/platform/scripted/scripted_platform.h"

namespace {

using qbv::id, qbv::SEL;

class ObjectCountTest : public ::testing::Test {
 protected:
  ObjectCountTest() { NSObject_AllocMonitor::load(); }
  SEL sel(const char* name) { return runtime.NSSelectorFromString(name); }
  id classOf(const char* name) { return qbv::Runtime::classObject(runtime.defineClass(name, nullptr)); }
  id alloc(id cls) { return qbv::send<id>(runtime, cls, "alloc"); }
  void dealloc(id object) { qbv::send<void>(runtime, object, "dealloc"); }
  std::int64_t count() { return NSObject_AllocMonitor::currentOcObjectLiveCount(); }

  qbv::ScriptedPlatform& scripted = *new qbv::ScriptedPlatform;
  qbv::Runtime& runtime = scripted.runtime;
};

TEST_F(ObjectCountTest, CountsObjectsOfEveryClassWhileTheyLive) {
  const id cls = classOf("Document");
  const id one = alloc(cls);
  const id two = qbv::send<id>(runtime, cls, "allocWithZone:", static_cast<void*>(nullptr));
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  EXPECT_NE(one, two);
  EXPECT_EQ(count(), 2);
  EXPECT_EQ(qbv::send<std::int64_t>(runtime, cls, "currentOcObjectLiveCount"), 2);
  qbv::ClassDefinition(runtime, "Document")
      .method(
          "answer", +[](id, SEL) -> std::int64_t { return 5; });
  EXPECT_EQ(qbv::send<std::int64_t>(runtime, one, "answer"), 5) << "a real instance";
  dealloc(one);
  dealloc(two);
  EXPECT_EQ(count(), 0);
}

id leftOver = nullptr;

TEST_F(ObjectCountTest, CountsCallsThatReachTheRoot) {
  // A class that passes through both root operations, and one that never comes to the root.
  qbv::ClassDefinition(runtime, "Both")
      .classMethod(
          "alloc", +[](id self, SEL) -> id {
            qbv::Runtime& present = qbv::platform().runtime;
            leftOver = qbv::send<id>(
                present, qbv::Runtime::classObject(present.NSClassFromString("NSObject")), "alloc");
            return qbv::send<id>(present, self, "allocWithZone:", static_cast<void*>(nullptr));
          });
  qbv::ClassDefinition own(runtime, "Own");
  own.classMethod(
      "alloc", +[](id self, SEL) -> id { return self; });
  const id object = alloc(classOf("Both"));
  EXPECT_EQ(count(), 2);
  dealloc(object);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(alloc(classOf("Own")), classOf("Own"));
  EXPECT_EQ(count(), 1);
  dealloc(leftOver);
  EXPECT_EQ(count(), 0);
}

TEST_F(ObjectCountTest, StaysAtZeroAndCountsOnFromThere) {
  const id everlasting = runtime.createInstance(runtime.defineClass("Helper", nullptr));
  for (int i = 0; i < 3; ++i) dealloc(everlasting);
  dealloc(classOf("Helper"));
  EXPECT_EQ(count(), 0);
  const id object = alloc(classOf("Helper"));
  EXPECT_EQ(count(), 1);
  dealloc(object);
}

TEST_F(ObjectCountTest, ASecondLoadDoesNotExchangeBack) {
  NSObject_AllocMonitor::load();
  const id object = alloc(classOf("Document"));
  EXPECT_EQ(count(), 1);
  dealloc(object);
}

TEST_F(ObjectCountTest, AMissingMethodLeavesThePairAlone) {
  qbv::ClassDefinition(runtime, "NSObject")
      .method(
          "there", +[](id, SEL) -> std::int64_t { return 1; });
  exchangeMethod(sel("there"), sel("missing"), false);
  exchangeMethod(sel("missing"), sel("there"), false);
  exchangeMethod(sel("there"), sel("alloc"), false);
  const id object = alloc(classOf("Document"));
  EXPECT_EQ(qbv::send<std::int64_t>(runtime, object, "there"), 1);
  qbv::ClassDefinition(runtime, "NSObject")
      .method(
          "here", +[](id, SEL) -> std::int64_t { return 2; });
  exchangeMethod(sel("there"), sel("here"), false);
  EXPECT_EQ(qbv::send<std::int64_t>(runtime, object, "there"), 2);
  dealloc(object);
}

// Every thread removes only what it knows to be there, mostly another's: none may be refused.
TEST_F(ObjectCountTest, NoRemovalIsRefusedWhileObjectsAreThere) {
  constexpr int kThreads = 8;
  constexpr int kObjects = 30'000;
  std::atomic<int> there{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      for (int i = 0; i < kObjects; ++i) {
        if (number % 2 == 0) {
          qbv::LiveObjects::add();
          ++there;
        } else {
          for (int present = there; present == 0 || !there.compare_exchange_weak(present, present - 1);
               present = there)
            std::this_thread::yield();
          if (!qbv::LiveObjects::remove()) ++refused;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(refused, 0);
  EXPECT_EQ(qbv::LiveObjects::count(), 0);
}

// Every share is asked for just while its owner changes it: no change gets lost.
TEST_F(ObjectCountTest, SharesChangeHandsWithoutLoss) {
  constexpr int kThreads = 100;
  constexpr int kObjects = 900;
  std::atomic<std::int64_t> removed{0};
  std::atomic<bool> done{false};
  std::latch begin(kThreads + 3);
  std::vector<std::thread> removers;
  for (int number = 0; number < 3; ++number)
    removers.emplace_back([&] {
      begin.arrive_and_wait();
      while (!done) removed += qbv::LiveObjects::remove() ? 1 : 0;
    });
  std::vector<std::thread> adders;
  for (int number = 0; number < kThreads; ++number)
    adders.emplace_back([&] {
      begin.arrive_and_wait();
      std::int64_t own = 0;
      for (int i = 0; i < kObjects; ++i) {
        qbv::LiveObjects::add();
        qbv::LiveObjects::add();
        own += qbv::LiveObjects::remove() ? 1 : 0;
      }
      removed += own;
    });
  for (std::thread& thread : adders) thread.join();
  done = true;
  for (std::thread& thread : removers) thread.join();
  std::int64_t left = 2 * kThreads * kObjects - removed;
  EXPECT_EQ(qbv::LiveObjects::count(), left);
  for (; left > 0; --left) ASSERT_TRUE(qbv::LiveObjects::remove());
  EXPECT_FALSE(qbv::LiveObjects::remove());
}

// More are taken than given: what was refused is exactly what was too much.
TEST_F(ObjectCountTest, IsNeverBelowZeroOnManyThreads) {
  constexpr int kThreads = 8;
  std::atomic<std::int64_t> balance{0};
  std::atomic<bool> below{false};
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      for (int i = 0; i < 20'000; ++i) {
        if ((i + number) % 5 < 2) {
          qbv::LiveObjects::add();
          ++balance;
        } else if (qbv::LiveObjects::remove()) {
          --balance;
        }
        if (i % 64 == 0 && qbv::LiveObjects::count() < 0) below = true;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(below);
  EXPECT_EQ(qbv::LiveObjects::count(), balance);
}

}  // namespace
