// Rebinding in a real process: this program and modules that call a library through slots of every kind.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "vitalscope/profiler/qb_symbol_rebind.h"

extern "C" {
int rebind_target(int value);
int rebind_chosen(int value);
}

namespace {

using Function = int (*)(int);

void* gOriginal = nullptr;  // images that come later store into it too
std::atomic<int> gCalls{0};

void* original() {
  return std::atomic_ref(gOriginal).load(std::memory_order_acquire);
}

// Comes back to itself for ever if what was saved leads through a slot again.
int hook(int value) {
  ++gCalls;
  return reinterpret_cast<Function>(original())(value) + 1000;
}

void* addressOf(Function function) {
  return reinterpret_cast<void*>(function);
}

class Module {
 public:
  explicit Module(const std::string& kind)
      : handle_(dlopen((CALLERS + kind + ".so").c_str(), RTLD_LAZY | RTLD_LOCAL)) {
    EXPECT_NE(handle_, nullptr) << dlerror();
  }
  int call(const char* function, int value) const {
    return reinterpret_cast<Function>(dlsym(handle_, function))(value);
  }
  Function addressOfTarget() const {
    return reinterpret_cast<Function (*)()>(dlsym(handle_, "address_of_target"))();
  }
  void close() { dlclose(handle_); }

 private:
  void* handle_;
};

void rebind(const char* name, void* replacement, void** replaced = nullptr) {
  const qb_rebinding request{name, replacement, replaced};
  qb_rebind_symbols(&request);
}

void* trueTarget() {
  void* const library = dlopen("librebind_target.so", RTLD_LAZY | RTLD_NOLOAD);
  EXPECT_NE(library, nullptr) << dlerror();
  return dlsym(library, "rebind_target");
}

bool becomes(const Module& module, int wanted) {
  for (int i = 0; i < 20000 && module.call("call_target", 1) != wanted; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return module.call("call_target", 1) == wanted;
}

TEST(LiveRebind, ReachesEverySlotAndSavesTheFunctionItself) {
  std::vector<Module> modules;
  for (const char* kind : {"lazy", "now", "no_plt", "no_relro"}) modules.emplace_back(kind);
  EXPECT_EQ(modules[1].call("call_target", 1), 2);  // one is bound by a call, the others are not yet
  rebind("rebind_target", addressOf(hook), &gOriginal);
  EXPECT_EQ(original(), trueTarget());
  EXPECT_EQ(rebind_target(1), 1002);
  for (const Module& module : modules) {
    EXPECT_EQ(module.call("call_target", 1), 1002);
    EXPECT_EQ(module.call("call_hidden_choice", 4), 8);
  }
  EXPECT_EQ(gCalls, 5);

  rebind("rebind_target", original());
  EXPECT_EQ(rebind_target(1), 2);
  for (const Module& module : modules) EXPECT_EQ(module.call("call_target", 1), 2);
  EXPECT_EQ(gCalls, 5);
}

TEST(LiveRebind, ASecondRunSavesTheFunctionAgain) {
  const Module lazy("lazy");
  for (int run = 0; run < 3; ++run) {
    std::atomic_ref(gOriginal).store(nullptr);
    rebind("rebind_target", addressOf(hook), &gOriginal);
    ASSERT_EQ(original(), trueTarget()) << run;
    EXPECT_EQ(lazy.call("call_target", 1), 1002);
    rebind("rebind_target", original());
    EXPECT_EQ(lazy.call("call_target", 1), 2);
  }
}

// An executable that is not position-independent has one: every image is given its address.
TEST(LiveRebind, AStandInOfTheExecutableIsNotSaved) {
  const Module module("no_plt");
  const volatile Function taken = rebind_target;
  EXPECT_EQ(taken(1), 2);
  rebind("rebind_target", addressOf(hook), &gOriginal);
  EXPECT_EQ(original(), trueTarget());
  EXPECT_EQ(module.call("call_target", 1), 1002);
}

TEST(LiveRebind, WhatAResolverChoosesIsSavedAsItsChoice) {
  const Module lazy("lazy");
  rebind("rebind_chosen", addressOf(hook), &gOriginal);
  EXPECT_EQ(lazy.call("call_chosen", 1), 1002);
  EXPECT_EQ(rebind_chosen(1), 1002);
}

TEST(LiveRebind, AFunctionBoundInsideOfItsLibraryStays) {
  const Module symbolic("symbolic");
  rebind("rebind_target", addressOf(hook), &gOriginal);
  EXPECT_EQ(symbolic.call("call_target", 1), 101);
}

TEST(LiveRebind, ModulesThatArriveLaterAreReached) {
  rebind("rebind_target", addressOf(hook), &gOriginal);
  Module late("late");
  EXPECT_TRUE(becomes(late, 1002));
  EXPECT_EQ(original(), trueTarget());
  rebind("rebind_target", original());
  EXPECT_EQ(late.call("call_target", 1), 2);
}

// Closed and opened again it mostly comes to lie at the same place, with slots as they were in the beginning.
TEST(LiveRebind, AModuleThatComesBackIsReachedAgain) {
  rebind("rebind_target", addressOf(hook), &gOriginal);
  for (int i = 0; i < 5; ++i) {
    Module late("late");
    ASSERT_TRUE(becomes(late, 1002)) << i;
    late.close();
  }
}

// On some machines a loop without calls by PLT would keep the slot's value in a register.
[[gnu::noinline]] int callTarget(int value) {
  return rebind_target(value);
}

TEST(LiveRebind, LoadingWhileRebindingHarmsNeither) {
  std::atomic<bool> over{false};
  std::thread loader([&over] {
    while (!over) {
      Module late("late");
      const int answer = late.call("call_target", 1);
      EXPECT_TRUE(answer == 2 || answer == 1002) << answer;
      late.close();
    }
  });
  for (int run = 0; run < 200; ++run) {
    rebind("rebind_target", addressOf(hook), &gOriginal);
    EXPECT_EQ(callTarget(1), 1002);
    EXPECT_EQ(original(), trueTarget());
    rebind("rebind_target", original());
    EXPECT_EQ(callTarget(1), 2);
  }
  over = true;
  loader.join();
}

// Rebinding a name that the library itself imports leaves it able to do its work.
TEST(LiveRebind, OtherNamesStay) {
  const Module lazy("lazy");
  rebind("rebind_targe", addressOf(hook));
  rebind("rebind_target_", addressOf(hook));
  EXPECT_EQ(lazy.call("call_target", 1), 2);
  EXPECT_EQ(rebind_target(1), 2);
}

}  // namespace
