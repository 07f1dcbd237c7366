// What goes through the trampoline comes out as it went in, whatever way the method is left.
#include <pthread.h>
#include <sys/resource.h>
#include <ucontext.h>

#include <array>
#include <atomic>
#include <csetjmp>
#include <cstring>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>

#include "tests/platform/every_signature.h"
#include "tests/profiler/hook_fixture.h"
#include "tests/profiler/tail_sends.h"

namespace qbv {
namespace {

using namespace literals;

const tests::SendEntries kEntries = QBV_SEND_ENTRIES(hook_objc_msgSend);

class MessageHookTest : public tests::HookFixture {
 protected:
  template <class Method>
  id objectWith(const char* selectorName, Method* method) {
    const Class cls = table.defineClass("Host", nullptr);
    table.addInstanceMethod(cls, selectorNamed(selectorName), reinterpret_cast<IMP>(method), "v@:");
    return table.createInstance(cls);
  }
};

TEST_F(MessageHookTest, EveryKindOfArgumentAndResultPasses) {
  const id receiver = table.createInstance(tests::defineEverySignature(table));
  message_hook::settings.clock = timeOfDayFunction();
  {
    SCOPED_TRACE("the real clock, nothing recorded");
    dtp_set_min_time(100'000'000);
    tests::sendEverySignature(kEntries, receiver);
    EXPECT_TRUE(recorded().empty());
  }
  message_hook::settings.clock = readClock;
  step = 1;
  dtp_set_min_time(0);
  dtp_set_max_depth(1000);
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE("every send recorded, stacks and records growing");
    tests::sendEverySignature(kEntries, receiver);
    EXPECT_GT(recorded().size(), 100U);
    EXPECT_EQ(depthNow(), 0);
  }
  std::thread([&] {
    SCOPED_TRACE("another thread");
    tests::sendEverySignature(kEntries, receiver);
  }).join();
}

TEST_F(MessageHookTest, DeepRecursionReturnsAllTheWay) {
  const id receiver = table.createInstance(tests::defineEverySignature(table));
  step = 1;
  const auto deep = [&](int levels) {
    return hooked<int>(receiver, "deep"_sel, reinterpret_cast<IMP>(hook_objc_msgSend), levels);
  };
  for (const int levels : {63, 64, 65, 127, 128, 129, 5000}) EXPECT_EQ(deep(levels), levels);
  EXPECT_EQ(depthNow(), 0);
}

struct Witness {
  static inline int alive = 0;
  Witness() { ++alive; }
  ~Witness() { --alive; }
};

// Sends itself down to 0, then throws; every odd level on its way catches and throws on.
int throwFromBelow(id self, SEL selector, int levels) {
  const Witness witness;
  std::string text(static_cast<std::size_t>(levels + 50), 'x');  // in registers and on the stack
  if (levels == 0) throw std::runtime_error("from below");
  const auto next = reinterpret_cast<int (*)(id, SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend));
  if (levels % 3 == 1) {
    try {
      return next(self, selector, levels - 1) + static_cast<int>(text.size());
    } catch (const std::runtime_error&) {
      throw;
    }
  }
  return next(self, selector, levels - 1) + static_cast<int>(text.size());
}

TEST_F(MessageHookTest, ExceptionsPassAndRunEveryDestructor) {
  const id object = objectWith("fail:", throwFromBelow);
  step = 1;
  for (int round = 0; round < 3; ++round) {
    bool caught = false;
    const Witness outer;
    try {
      hooked<int>(object, "fail:"_sel, 20);
    } catch (const std::runtime_error& error) {
      caught = std::string(error.what()) == "from below";
    }
    EXPECT_TRUE(caught);
    EXPECT_EQ(Witness::alive, 1);
    EXPECT_EQ(depthNow(), 0);
  }
  EXPECT_FALSE(recorded().empty()) << "a send that ends so is over as well";
}

int leaveThread(id self, SEL selector, int levels) {
  const Witness witness;
  if (levels == 0) pthread_exit(nullptr);
  return reinterpret_cast<int (*)(id, SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(
             self, selector, levels - 1) +
         1;
}

TEST_F(MessageHookTest, AThreadMayEndInsideASend) {
  const id object = objectWith("leave:", leaveThread);
  std::thread([&] { hooked<int>(object, "leave:"_sel, 10); }).join();
  EXPECT_EQ(Witness::alive, 0);
}

jmp_buf jumpBack;
int jumpFromBelow(id self, SEL selector, int levels) {
  if (levels == 0) longjmp(jumpBack, 1);
  return reinterpret_cast<int (*)(id, SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(
             self, selector, levels - 1) +
         1;
}
// Lets a send below it be left by a jump to itself, and sends on.
int surviveJump(id self, SEL, int levels) {
  if (setjmp(jumpBack) == 0)
    reinterpret_cast<int (*)(id, SEL, int)>(reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(self, "jump:"_sel,
                                                                                           levels);
  return depthBelow(reinterpret_cast<IMP>(hook_objc_msgSend), self, "depth"_sel);
}

TEST_F(MessageHookTest, WhatALongjmpLeavesBehindIsDropped) {
  const id object = objectWith("jump:", jumpFromBelow);
  objectWith("survive:", surviveJump);
  objectWith(
      "depth", +[](id, SEL) { return static_cast<int>(dtp_own_stack->index()); });
  for (int round = 0; round < 300; ++round) {
    if (setjmp(jumpBack) == 0) hooked<int>(object, "jump:"_sel, 7);
    // What was left higher up on the stack than the next send is found out only when that one's caller
    // returns.
    const int depth = hooked<int>(object, "survive:"_sel, 5);
    ASSERT_TRUE(depth >= 1 && depth <= 7) << depth << " in round " << round;
    ASSERT_EQ(depthNow(), 0);
  }
  EXPECT_EQ(hooked<int>(object, "depth"_sel), 0);
  EXPECT_EQ(depthNow(), 0);
}

TEST_F(MessageHookTest, TailCallsOfSendsReturnToTheFirstCaller) {
  const id object = objectWith("tail:", sendOnInPlaceOfReturning);
  step = 1;
  for (int round = 0; round < 100; ++round)
    for (const int length : {1, 6, 7, 8, 30}) {
      dtp_clear_call_records();
      ASSERT_EQ(hooked<int>(object, "tail:"_sel, length), 1000);
      ASSERT_EQ(depthNow(), 0);
      ASSERT_EQ(recorded().size(), static_cast<std::size_t>(std::min(length + 1, 7)));
      EXPECT_EQ(recorded()[0].depth, std::min(length, 6)) << "the last one is the deepest";
    }
}

// Two stacks take turns inside of sends, so that these return in another order than they began.
struct Fiber {
  ucontext_t context;
  std::array<std::byte, 65536> stack;
};
ucontext_t home;
Fiber first, second;
std::vector<int> order;
int takeTurns(id, SEL, Fiber* own, Fiber* other, int number) {
  for (int i = 0; i < 3; ++i) {
    order.push_back(number);
    swapcontext(&own->context, &other->context);
  }
  return number;
}

TEST_F(MessageHookTest, SendsOnStacksThatTakeTurnsReturnToTheirCallers) {
  static id object = objectWith("turn", takeTurns);
  static std::atomic<int> sum{0};
  const auto start = [](Fiber& fiber, void (*body)()) {
    getcontext(&fiber.context);
    fiber.context.uc_stack.ss_sp = fiber.stack.data();
    fiber.context.uc_stack.ss_size = fiber.stack.size();
    fiber.context.uc_link = &home;
    makecontext(&fiber.context, body, 0);
  };
  start(
      first, +[] {
        sum += hooked<int>(object, "turn"_sel, &first, &second, 1);
        swapcontext(&first.context, &second.context);
      });
  start(
      second, +[] { sum += hooked<int>(object, "turn"_sel, &second, &first, 2); });
  swapcontext(&home, &first.context);
  EXPECT_EQ(sum, 3);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 1, 2, 1, 2}));
  EXPECT_EQ(depthNow(), 0);
}

TEST_F(MessageHookTest, NilAndUnknownSelectorsAreAsWithoutTheHook) {
  EXPECT_EQ(hooked<int>(nullptr, "any"_sel, 5), 0);
  EXPECT_EQ(hooked<double>(nullptr, "any"_sel, 5.), 0);
  const id object = table.createInstance(table.defineClass("Host", nullptr));
  EXPECT_DEATH(hooked<int>(object, "any"_sel), "-\\[Host any\\]");
}

#if !defined(QBV_SANITIZED)
int down(id self, SEL selector, int levels) {
  return levels == 0 ? 0
                     : 1 + reinterpret_cast<int (*)(id, SEL, int)>(
                               reinterpret_cast<qbv::IMP>(hook_objc_msgSend))(self, selector, levels - 1);
}

TEST_F(MessageHookTest, SendsDeeperThanTheStackCanGrowReturnAllTheSame) {
  static id object = objectWith("down:", down);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, std::size_t{256} << 20);
  pthread_t thread;
  ASSERT_EQ(pthread_create(
                &thread, &attributes,
                +[](void*) -> void* {
                  return reinterpret_cast<void*>(std::intptr_t{hooked<int>(object, "down:"_sel, 400'000)});
                },
                nullptr),
            0);
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(reinterpret_cast<std::intptr_t>(result), 400'000);
}

TEST_F(MessageHookTest, SendsGoOnWithoutMemory) {
  const id object = objectWith("down:", down);
  std::latch limited(1);
  int withoutMemory = 0, withMemory = 0;
  rlimit usual{};
  getrlimit(RLIMIT_AS, &usual);
  std::thread thread([&] {
    limited.wait();
    withoutMemory = hooked<int>(object, "down:"_sel, 10);
    EXPECT_EQ(dtp_own_stack, &dtp_no_stack);
    setrlimit(RLIMIT_AS, &usual);
    withMemory = hooked<int>(object, "down:"_sel, 10);
    EXPECT_NE(dtp_own_stack, &dtp_no_stack);
  });
  send<int>(object, "down:"_sel, 1);  // into the cache
  const rlimit tight{1, usual.rlim_max};
  setrlimit(RLIMIT_AS, &tight);
  limited.count_down();
  thread.join();
  EXPECT_EQ(withoutMemory, 10);
  EXPECT_EQ(withMemory, 10);
}
#endif

}  // namespace
}  // namespace qbv
