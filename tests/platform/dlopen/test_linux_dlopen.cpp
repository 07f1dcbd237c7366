// The library's own dlopen, which every image of the process calls instead of the C library's.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "vitalscope/platform/platform.h"

extern "C" int openSub(const char** error);

namespace {

using qbv::platform;

void* address(const char* name) {
  return dlsym(RTLD_DEFAULT, name);
}

void useTheMainQueue() {
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [] {});
}

TEST(LinuxDlopen, RunPathOfTheCallerCounts) {
  Dl_info where{};
  ASSERT_NE(dladdr(address("dlopen"), &where), 0);
  ASSERT_THAT(std::string(where.dli_fname), testing::HasSubstr("libquibplatform")) << "ours is in place";
  const char* error = nullptr;
  EXPECT_EQ(openSub(&error), 42) << error;
  useTheMainQueue();
  EXPECT_EQ(openSub(&error), 42) << error;
}

TEST(LinuxDlopen, AnswersAsTheCLibrarysDoes) {
  useTheMainQueue();
  errno = 0;
  EXPECT_EQ(dlopen("libthat_is_nowhere.so.3", RTLD_NOW), nullptr);
  const char* const error = dlerror();
  ASSERT_NE(error, nullptr);
  EXPECT_THAT(std::string(error), testing::HasSubstr("libthat_is_nowhere.so.3"));
  void* const program = dlopen(nullptr, RTLD_NOW);
  EXPECT_NE(program, nullptr);
  EXPECT_EQ(dlerror(), nullptr);
  EXPECT_EQ(dlclose(program), 0);
}

// Nobody asks for the loop here: the next call of dlopen finds what the one before has brought.
TEST(LinuxDlopen, LoadedGlibIsFoundAtTheNextCall) {
  bool ran = false;
  qbv::Dispatch& dispatch = platform().dispatch;
  dispatch.dispatch_async(dispatch.dispatch_get_main_queue(), [&] { ran = true; });
  void* const glib = dlopen("libglib-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
  if (glib == nullptr) GTEST_SKIP() << dlerror();
  const auto iterate = reinterpret_cast<int (*)(void*, int)>(dlsym(glib, "g_main_context_iteration"));
  iterate(nullptr, 0);
  EXPECT_FALSE(ran);
  dlclose(dlopen(nullptr, RTLD_NOW));
  iterate(nullptr, 0);
  EXPECT_TRUE(ran);
}

}  // namespace
