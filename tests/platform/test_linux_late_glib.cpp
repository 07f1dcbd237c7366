// GLib that arrives when the main queue is in use already, out of reach of the global scope.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {
namespace {

TEST(LinuxLateGlib, IsFoundInTheBackgroundWhenSomebodyAsksForTheLoop) {
  bool ran = false;
  dispatch().dispatch_async(dispatch().dispatch_get_main_queue(), [&] { ran = true; });
  EXPECT_FALSE(runLoop().mainLoopSeen());
  void* const library = dlopen("libglib-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) GTEST_SKIP() << dlerror();
  ASSERT_EQ(dlsym(RTLD_DEFAULT, "g_main_context_iteration"), nullptr);
  const auto iterate = reinterpret_cast<int (*)(void*, int)>(dlsym(library, "g_main_context_iteration"));

  EXPECT_FALSE(runLoop().mainLoopSeen());
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!ran && std::chrono::steady_clock::now() < end) {
    iterate(nullptr, 0);
    std::this_thread::yield();
  }
  EXPECT_TRUE(ran);
  EXPECT_TRUE(runLoop().mainLoopSeen());
  EXPECT_STREQ(runLoop().mainLoopKind(), "GLib");
}

}  // namespace
}  // namespace qbv::linux_backend
