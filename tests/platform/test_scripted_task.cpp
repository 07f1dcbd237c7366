#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "vitalscope/platform/scripted/scripted_platform.h"

namespace qbv {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ScriptedTaskTest : public ::testing::Test {
 protected:
  std::vector<ThreadPort> list() {
    ThreadPort* ports = nullptr;
    std::uint32_t count = 0;
    EXPECT_EQ(task.task_threads(&ports, &count), KERN_SUCCESS);
    handedOut = ports;
    return {ports, ports + count};
  }
  std::optional<std::uint64_t> word(std::uint64_t address) {
    std::uint64_t value = 0;
    std::size_t copied = 99;
    const KernReturn result = task.vm_read_overwrite(address, sizeof value, &value, &copied);
    EXPECT_EQ(copied, result == KERN_SUCCESS ? sizeof value : 0);
    return result == KERN_SUCCESS ? std::optional(value) : std::nullopt;
  }

  ScriptedTask task;
  const ThreadPort* handedOut = nullptr;
};

TEST_F(ScriptedTaskTest, ListsAndPortsAreCountedUntilGivenBack) {
  task.addThread(7);
  task.addThread(5);
  EXPECT_THAT(list(), ElementsAre(7, 5));
  EXPECT_EQ(task.portsOutstanding(), 2u);
  EXPECT_EQ(task.vm_deallocate(handedOut, 4), KERN_INVALID_ARGUMENT) << "the size is part of the promise";
  EXPECT_EQ(task.mach_port_deallocate(7), KERN_SUCCESS);
  EXPECT_EQ(task.mach_port_deallocate(7), KERN_INVALID_ARGUMENT);
  EXPECT_EQ(task.vm_deallocate(handedOut, 8), KERN_SUCCESS);
  EXPECT_EQ(task.portsOutstanding(), 1u);
  EXPECT_EQ(task.listsOutstanding(), 0u);
}

TEST_F(ScriptedTaskTest, SuspensionsAreFollowedPerThread) {
  task.addThread(7);
  EXPECT_EQ(task.thread_resume(7), KERN_FAILURE);
  task.thread_suspend(7);
  EXPECT_THAT(task.suspendedThreads(), ElementsAre(7));
  task.thread_resume(7);
  EXPECT_THAT(task.suspendedThreads(), IsEmpty());
  EXPECT_EQ(task.thread_suspend(8), KERN_INVALID_ARGUMENT);
  EXPECT_THAT(task.callsForThread(7),
              ElementsAre(TaskCall::thread_resume, TaskCall::thread_suspend, TaskCall::thread_resume));
}

TEST_F(ScriptedTaskTest, FailuresHitTheNamedThreadAfterTheSkippedCallsAndEnd) {
  task.addThread(7, 100);
  task.addThread(8, 200);
  task.fail(TaskCall::thread_info, KERN_INVALID_ARGUMENT, 8, /*skip=*/1, /*times=*/2);
  ThreadBasicInfo info;
  std::vector<KernReturn> results;
  for (int i = 0; i < 4; ++i) results.push_back(task.thread_info(8, &info));
  EXPECT_THAT(results, ElementsAre(KERN_SUCCESS, KERN_INVALID_ARGUMENT, KERN_INVALID_ARGUMENT, KERN_SUCCESS));
  EXPECT_EQ(task.thread_info(7, &info), KERN_SUCCESS);
  EXPECT_EQ(info.cpu_usage, 100);
  task.setSelf(7);
  ThreadState state;
  EXPECT_EQ(task.thread_get_state(7, &state), KERN_FAILURE) << "a thread cannot read its own state";
}

TEST_F(ScriptedTaskTest, ReadsSeeExactlyWhatIsMapped) {
  EXPECT_EQ(task.mapFrameChain(0x1000, {11, 22}, 16), 0x1000u);
  EXPECT_EQ(word(0x1000), 0x1010u);
  EXPECT_EQ(word(0x1008), 11u);
  EXPECT_EQ(word(0x1010), 0u);
  EXPECT_EQ(word(0x1018), 22u);
  EXPECT_EQ(word(0x101c), std::nullopt) << "reaches behind the last piece";
  EXPECT_EQ(word(0xfff), std::nullopt);
  EXPECT_EQ(word(~0ull - 3), std::nullopt);
  std::array<std::uint64_t, 4> all{};
  EXPECT_EQ(task.vm_read_overwrite(0x1000, sizeof all, all.data(), nullptr), KERN_SUCCESS);
  EXPECT_THAT(all, ElementsAre(0x1010, 11, 0, 22)) << "pieces that touch read as one";
  task.failReadsAt(0x100b);
  EXPECT_EQ(word(0x1008), std::nullopt);
  EXPECT_EQ(word(0x1000), 0x1010u);
}

TEST_F(ScriptedTaskTest, RealMemoryIsReadOnlyWhenAllowed) {
  const std::uint64_t real = 42;
  const auto address = reinterpret_cast<std::uintptr_t>(&real);
  EXPECT_EQ(word(address), std::nullopt);
  task.setReadsRealMemory(true);
  EXPECT_EQ(word(address), 42u);
  EXPECT_EQ(word(8), std::nullopt);
}

TEST(ScriptedImages, PlacesKeepTheirIndexAndBytesTheirBounds) {
  ScriptedImages images;
  const auto first = images.add(ScriptedImageBuilder().segment("__TEXT", 0, 16).build(), "/lib/first");
  EXPECT_EQ(images.addEmptyPlace(), 1u);
  images.add(ScriptedImageBuilder().build(), std::nullopt);
  EXPECT_EQ(images._dyld_image_count(), 3u);
  EXPECT_EQ(images._dyld_get_image_header(1), nullptr);
  EXPECT_EQ(images._dyld_get_image_name(2), nullptr);
  const auto* const header = static_cast<const std::byte*>(images._dyld_get_image_header(first));
  const std::size_t size = images.image(first).size();
  EXPECT_EQ(images.loadAddress(first), reinterpret_cast<std::uintptr_t>(header));
  EXPECT_TRUE(images.readable(first, header, size));
  EXPECT_TRUE(images.readable(first, header + size, 0));
  EXPECT_FALSE(images.readable(first, header + 1, size));
  EXPECT_FALSE(images.readable(first, header - 1, 1));
  EXPECT_FALSE(images.readable(first, header, ~std::size_t{0}));
  images.remove(first);
  EXPECT_EQ(images._dyld_get_image_header(first), nullptr);
  EXPECT_TRUE(images.readable(first, header, size)) << "descriptions once handed out stay readable";
}

}  // namespace
}  // namespace qbv
