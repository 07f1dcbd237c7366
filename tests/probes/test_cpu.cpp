#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "vitalscope/memory/QBVitalscopeMemoryMonitor.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/probes/QBVitalscopeCPU.h"

namespace qbv {
namespace {

class CPUTest : public testing::Test {
 protected:
  void expectNothingOutstanding() {
    EXPECT_EQ(scripted.task.portsOutstanding(), 0U);
    EXPECT_EQ(scripted.task.listsOutstanding(), 0U);
  }
  ScriptedPlatform scripted;
};

TEST_F(CPUTest, SumsAllThreadsButTheIdleOne) {
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageForApp(), 0);
  scripted.task.addThread(1, 1000);
  scripted.task.addThread(2, 1000);
  scripted.task.addThread(3, 0);
  scripted.task.addThread(4, 900, TH_FLAGS_IDLE);
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageForApp(), 200);
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageOfThread(4), 90);
  expectNothingOutstanding();
}

TEST_F(CPUTest, AddsInSinglePrecision) {
  float expected = 0;
  for (ThreadPort port = 1; port <= 50; ++port) {
    scripted.task.addThread(port, 333);
    expected += 333.0F / 1000.0F * 100.0F;
  }
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageForApp(), static_cast<double>(expected));
  EXPECT_NE(QBVitalscopeCPU::cpuUsageForApp(), 50 * 33.3);
}

TEST_F(CPUTest, AThreadThatCannotBeAskedFailsTheWholeAndLosesNothing) {
  for (ThreadPort port = 1; port <= 5; ++port) scripted.task.addThread(port, 100);
  scripted.task.fail(TaskCall::thread_info, KERN_FAILURE, ThreadPort{3});
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageForApp(), -1);
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageOfThread(3), -1);
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageOfThread(99), -1);
  for (const TaskCallRecord& call : scripted.task.calls()) {
    EXPECT_TRUE(call.call != TaskCall::mach_port_deallocate || call.result == KERN_SUCCESS) << call.thread;
  }
  expectNothingOutstanding();
  scripted.task.fail(TaskCall::task_threads);
  EXPECT_EQ(QBVitalscopeCPU::cpuUsageForApp(), -1);
}

TEST_F(CPUTest, AListThatCannotBeReleasedEndsTheProcess) {
  scripted.task.fail(TaskCall::vm_deallocate);
  EXPECT_DEATH(QBVitalscopeCPU::cpuUsageForApp(),
               "kr == KERN_SUCCESS.*\\+\\[QBVitalscopeCPU cpuUsageForApp\\].*QBVitalscopeCPU.*50");
}

TEST_F(CPUTest, FootprintIsInMegabytesUnrounded) {
  scripted.task.setFootprint(1'610'612'736);
  EXPECT_EQ(QBVitalscopeMemoryMonitor::memoryUsageInProgress(), 1536.0);
  scripted.task.setFootprint(1'572'865);
  EXPECT_EQ(QBVitalscopeMemoryMonitor::memoryUsageInProgress(), 1.5 + 1.0 / 1024 / 1024);
  scripted.task.fail(TaskCall::task_info);
  EXPECT_EQ(QBVitalscopeMemoryMonitor::memoryUsageInProgress(), 0.0);
}

}  // namespace
}  // namespace qbv
