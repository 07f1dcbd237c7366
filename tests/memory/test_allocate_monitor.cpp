// The allocation monitor on a heap whose events the test tells.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "vitalscope/memory/QBAllocateMemoryMonitor.h"
#include "vitalscope/memory/QBRapidCRC64.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

using qbv::TaskCall;

constexpr std::size_t kOver = 52'429'824;

class AllocateMonitorTest : public ::testing::Test {
 protected:
  // An over-size report takes the stacks of all threads, once each.
  std::size_t reports() const { return scripted.task.callCount(TaskCall::task_threads); }
  std::int64_t count() const { return QBAllocateMemoryMonitor::currentAllocMemoryLiveCount(); }

  qbv::ScriptedPlatform& scripted = *new qbv::ScriptedPlatform;
  qbv::ScriptedAllocator& heap = scripted.allocator;
};

TEST_F(AllocateMonitorTest, CountsTheFourKindsOfEventsAndNothingElse) {
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  ASSERT_EQ(heap.logger(), quib_malloc_stack_logger);
  heap.tell(10, 100, 0, 0x1000);
  EXPECT_EQ(count(), 1);
  heap.tell(74, 100, 0, 0x2000);
  EXPECT_EQ(count(), 2);
  heap.tellReallocation(0x1000, 200, 0x3000);
  EXPECT_EQ(count(), 3) << "one that moved counts as an allocation";
  heap.tellReallocation(0x3000, 60 << 20, 0x3000);
  EXPECT_EQ(count(), 3) << "one that stayed does not";
  heap.tellFree(0x2000);
  EXPECT_EQ(count(), 2);
  for (const std::uint32_t type : {0U, 2U, 4U, 8U, 11U, 16U, 26U, 66U, 76U, 78U, 138U})
    heap.tell(type, kOver, kOver, 0x4000);
  EXPECT_EQ(count(), 2);
  for (int i = 0; i < 5; ++i) heap.tellFree(0x5000);
  EXPECT_EQ(count(), -3) << "blocks from before";
  handle_alloc(10, 1, 99);
  handle_free(0x5000);
  EXPECT_EQ(count(), -3);
  EXPECT_EQ(reports(), 0U);
}

TEST_F(AllocateMonitorTest, OverSizeBeginsAtOneByte) {
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  heap.tellAllocation(0x1000, kOver - 1);
  EXPECT_EQ(reports(), 0U);
  heap.tellAllocation(0x2000, kOver);
  EXPECT_EQ(reports(), 1U);
  heap.tellReallocation(0x3000, kOver - 1, 0x4000);
  heap.tellReallocation(0x3000, kOver, 0x5000);
  EXPECT_EQ(reports(), 2U) << "a reallocation that moved is measured by its new size";
  EXPECT_EQ(count(), 4);
  EXPECT_EQ(QBVitalscopeReport::sharedInstance()->reportTimeValue(), 0)
      << "the writer takes no report of this reason";
}

TEST_F(AllocateMonitorTest, StopsAndGoesOn) {
  QBAllocateMemoryMonitor* const monitor = QBAllocateMemoryMonitor::sharedInstance();
  EXPECT_FALSE(monitor->allocMonitorEnabled());
  EXPECT_EQ(heap.logger(), nullptr) << "nothing is seen before the start";
  monitor->startMonitor();
  heap.tellAllocation(0x1000, 8);
  monitor->stop();
  EXPECT_EQ(heap.logger(), quib_malloc_stack_logger) << "the logger stays";
  heap.tellFree(0x1000);
  heap.tellAllocation(0x1000, kOver);
  EXPECT_EQ(count(), 1);
  EXPECT_EQ(reports(), 0U);
  monitor->startMonitor();
  heap.tellFree(0x1000);
  EXPECT_EQ(count(), 0);
}

void otherLogger(std::uint32_t, std::uintptr_t, std::uintptr_t, std::uintptr_t, std::uintptr_t,
                 std::uint32_t) {}

TEST_F(AllocateMonitorTest, LeavesAnotherLoggerInPlaceAndSaysNothing) {
  heap.setLogger(otherLogger);
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  heap.tellAllocation(0x1000, kOver);
  EXPECT_EQ(heap.logger(), otherLogger);
  EXPECT_EQ(count(), 0);
  EXPECT_THAT(scripted.log.messages(), testing::IsEmpty());
}

TEST_F(AllocateMonitorTest, SaysOnceThatTheHeapIsNotSeen) {
  heap.setSeesHeap(false);
  for (int i = 0; i < 3; ++i) QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  EXPECT_THAT(
      scripted.log.messages(),
      testing::ElementsAre(testing::HasSubstr("QBAllocateMemoryMonitor: this process has an allocator")));
}

// A system on which listing the threads takes over-size memory itself, and fails with an error number.
class HungryTask final : public qbv::Task {
 public:
  explicit HungryTask(qbv::ScriptedPlatform& scripted) : scripted_(scripted) {}
  qbv::KernReturn task_threads(qbv::ThreadPort** list, std::uint32_t* count) override {
    ++lists;
    scripted_.allocator.tellAllocation(0x9000, 2 * kOver);
    errno = ENFILE;
    *list = nullptr;
    *count = 0;
    return qbv::KERN_SUCCESS;
  }
  qbv::ThreadPort mach_thread_self() override { return task().mach_thread_self(); }
  qbv::ThreadPort mainThread() override { return task().mainThread(); }
  qbv::KernReturn mach_port_deallocate(qbv::ThreadPort) override { return qbv::KERN_SUCCESS; }
  qbv::KernReturn vm_deallocate(const void*, std::size_t) override { return qbv::KERN_SUCCESS; }
  qbv::KernReturn thread_info(qbv::ThreadPort, qbv::ThreadBasicInfo*) override { return qbv::KERN_FAILURE; }
  qbv::KernReturn thread_get_state(qbv::ThreadPort, qbv::ThreadState*) override { return qbv::KERN_FAILURE; }
  qbv::KernReturn thread_suspend(qbv::ThreadPort) override { return qbv::KERN_FAILURE; }
  qbv::KernReturn thread_resume(qbv::ThreadPort) override { return qbv::KERN_FAILURE; }
  int backtrace(void**, int) override { return 0; }
  qbv::KernReturn vm_read_overwrite(std::uint64_t, std::size_t, void*, std::size_t*) override {
    return qbv::KERN_FAILURE;
  }
  qbv::KernReturn task_info(qbv::TaskVmInfo*) override { return qbv::KERN_FAILURE; }
  std::optional<double> processStartTimeMilliseconds() override { return {}; }
  std::uint64_t addressMask() override { return task().addressMask(); }
  int lists = 0;

 private:
  qbv::Task& task() { return scripted_.task; }
  qbv::ScriptedPlatform& scripted_;
};

TEST_F(AllocateMonitorTest, AnAllocationOfTheReportIsCountedAndNotReported) {
  static HungryTask& task = *new HungryTask(scripted);
  static auto& areas = *new qbv::Platform(qbv::platform().with(task));
  const qbv::ScopedPlatform installed(areas);
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  errno = EINTR;
  heap.tellAllocation(0x1000, kOver);
  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(task.lists, 1);
  EXPECT_EQ(count(), 2);
  heap.tellAllocation(0x2000, kOver);
  EXPECT_EQ(task.lists, 2) << "the next one is reported again";
}

TEST_F(AllocateMonitorTest, CountsOnManyThreadsWithoutLoss) {
  QBAllocateMemoryMonitor::sharedInstance()->startMonitor();
  std::vector<std::thread> threads;
  for (int number = 0; number < 8; ++number)
    threads.emplace_back([this] {
      for (std::uintptr_t i = 1; i <= 20'000; ++i) {
        heap.tellAllocation(i * 16, 8);
        if (i % 4 != 0) heap.tellFree(i * 16);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(count(), 8 * 5'000);
}

// ---- Stacks

std::vector<std::uint64_t> frames(std::uint64_t count) {
  std::vector<std::uint64_t> result;
  for (std::uint64_t i = 0; i < count; ++i) result.push_back(0x7f00'0000'1000 + i * 0x10'0000'0010);
  return result;
}

std::uint64_t checksum(std::vector<std::uint32_t> words) {
  if (words.size() % 2 != 0) words.push_back(0);
  return rapid_crc64(0, words.data(), words.size() * 4);
}

class RecordBacktraceTest : public AllocateMonitorTest {
 protected:
  std::vector<std::uint64_t> room = std::vector<std::uint64_t>(64, 0);
  std::uint64_t stackId = 77;
};

TEST_F(RecordBacktraceTest, KeepsWhatLiesBetweenTheSkippedAndTheOutermost) {
  const auto all = frames(11);
  scripted.task.setBacktrace(frames(10));
  EXPECT_EQ(recordBacktrace(true, 5, 0, 7, room.data(), &stackId, 64), 0U);
  EXPECT_EQ(stackId, 77U);
  EXPECT_EQ(room, std::vector<std::uint64_t>(64, 0)) << "too shallow: nothing is written";
  scripted.task.setBacktrace(all);
  EXPECT_EQ(recordBacktrace(true, 5, 0, 7, room.data(), &stackId, 64), 3U);
  EXPECT_THAT(std::vector(room.begin(), room.begin() + 4), testing::ElementsAre(all[7], all[8], all[9], 0U));
  EXPECT_EQ(stackId, checksum({5, static_cast<std::uint32_t>(all[7]), static_cast<std::uint32_t>(all[8])}));
  const std::uint64_t withOddWords = stackId;
  EXPECT_EQ(recordBacktrace(false, 5, 0, 6, room.data(), &stackId, 64), 4U)
      << "without a skipHash all the same";
  EXPECT_NE(stackId, withOddWords);
  EXPECT_EQ(recordBacktrace(true, 5, 0, ~std::uint64_t{0}, room.data(), &stackId, 64), 0U);
}

TEST_F(RecordBacktraceTest, StaysWithinTheRoomAndTakesTheLastAddressFromTheWholeCapture) {
  const auto all = frames(100);
  scripted.task.setBacktrace(all);
  EXPECT_EQ(recordBacktrace(true, 0, 0, 2, room.data(), &stackId, 8), 5U);
  EXPECT_THAT(std::vector(room.begin(), room.begin() + 6),
              testing::ElementsAre(all[2], all[3], all[4], all[5], all[62], 0U));
  EXPECT_EQ(recordBacktrace(true, 0, 0, 0, room.data(), &stackId, 1000), 63U) << "64 are captured at most";
}

TEST_F(RecordBacktraceTest, WithASkipHashNothingIsHashed) {
  const auto all = frames(9);
  scripted.task.setBacktrace(all);
  EXPECT_EQ(recordBacktrace(true, 0, 1, 4, room.data(), &stackId, 64), 0U);
  EXPECT_THAT(std::vector(room.begin(), room.begin() + 5),
              testing::ElementsAre(all[4], all[5], all[6], all[7], 0U));
  room.assign(64, 0);
  EXPECT_EQ(recordBacktrace(false, 0, 1, 4, room.data(), &stackId, 64), 0U);
  EXPECT_THAT(std::vector(room.begin(), room.begin() + 2), testing::ElementsAre(all[7], 0U));
  EXPECT_EQ(stackId, 77U);
}

TEST_F(AllocateMonitorTest, TheStoreIsInAZoneOfItsOwn) {
  recordMallocStack(0x10, 1, 0);
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_ptrs_hashmap(), nullptr) << "no store, no record, no harm";
  QBAllocateMemoryMonitor::sharedInstance();
  ASSERT_EQ(heap.zoneCount(), 1U);
  EXPECT_EQ(heap.zone(0).name, "QBAllocateMemoryMonitor");
  EXPECT_EQ(QBAllocateMemoryMonitor::global_memory_zone(), &heap.zone(0).zone);
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_ptrs_hashmap()->getEntryNum(), 500'000U);
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_stacks_hashmap()->getEntryNum(), 50'000U);
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_stacks_hashmap()->sizeThreshold(), 1'048'576U);
  EXPECT_GE(heap.zone(0).zone.liveBytes(), 4'400'000U);
  EXPECT_EQ(QBAllocateMemoryMonitor::log_path(),
            QBVitalscopeReport::sharedInstance()->localLogFolderRootPath() + "/dump/stack_backtrace.mmap");
}

TEST_F(AllocateMonitorTest, AnAddressIsRecordedOnceUnderItsStack) {
  QBAllocateMemoryMonitor::sharedInstance();
  scripted.task.setBacktrace(frames(20));
  recordMallocStack(0x1000, 300, 2);
  recordMallocStack(0x1000, 500, 2);
  recordMallocStack(0x2000, 7, 2);
  const ptr_node* const block = QBAllocateMemoryMonitor::oom_ptrs_hashmap()->lookupPtr(0x1000);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->size, 300U);
  const merge_stack_t* const stack =
      QBAllocateMemoryMonitor::oom_stacks_hashmap()->lookupStack(block->stack_id);
  ASSERT_NE(stack, nullptr);
  EXPECT_EQ(stack->count, 2U);
  EXPECT_EQ(stack->size, 307U);
  scripted.task.setBacktrace(frames(19));
  recordMallocStack(0x3000, 1, 2);
  scripted.task.setBacktrace(frames(5));
  recordMallocStack(0x4000, 1, 2);
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_ptrs_hashmap()->getRecordNum(), 3U) << "too shallow is not recorded";
  EXPECT_EQ(QBAllocateMemoryMonitor::oom_stacks_hashmap()->getRecordNum(), 2U);
}

TEST_F(AllocateMonitorTest, NotesTheLargestSizeAndTheLastRequest) {
  for (const std::int64_t size : {-5, 40, 7}) record_top_size_memory(size);
  EXPECT_EQ(QBAllocateMemoryMonitor::topAllocSize(), 40);
  EXPECT_EQ(QBAllocateMemoryMonitor::lastAllocOverMemoryTimestamp(), 0);
  memory_request_frequency();
  EXPECT_EQ(QBAllocateMemoryMonitor::lastAllocOverMemoryTimestamp(),
            static_cast<std::int64_t>(scripted.clock.CFAbsoluteTimeGetCurrent() +
                                      qbv::kCFAbsoluteTimeIntervalSince1970));
  EXPECT_FALSE(isInAppAddress(0x1000));
}

}  // namespace
