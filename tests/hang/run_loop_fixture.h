// The run-loop monitor on a scripted platform: the loop, its events, time and CPU use are the test's.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "vitalscope/hang/QBVitalscopeANRMonitor_RunLoop.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

// The monitor is not started. Once it is, it looks at each whole second from then on. A time whose
// microseconds are 0 counts as none, so the wall clock stands a little beside the seconds.
class RunLoopMonitorTest : public testing::Test {
 protected:
  RunLoopMonitorTest() {
    QBVitalscopeBacktrace::load();
    scripted.clock.setAbsoluteTime(qbv::ScriptedClock::kStart + 0.000123);
    qbv::ThreadState state;
    state.pc = 0x100000200;
    state.fp = scripted.task.mapFrameChain(0x16f000000, {0x100000300, 0x100000400, 0});
    scripted.task.addThread({qbv::ScriptedTask::kMainThread, {}, state});
    monitor = QBVitalscopeANRMonitor_RunLoop::sharedInstance();
  }

  void start() {
    monitor->start();
    scripted.runUntilIdle();
  }
  void setCPUPercent(int percent) { scripted.task.setCpuUsage(qbv::ScriptedTask::kMainThread, percent * 10); }

  // What the monitor has logged since the last call.
  std::vector<std::string> logged() {
    const std::vector<std::string> all = scripted.log.messages();
    const std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
    seen_ = all.size();
    return fresh;
  }
  // The main thread is at work for so long, from so long after a check on; then it sleeps through the next.
  std::size_t findingsOfStretch(double afterCheck, double seconds) {
    scripted.runLoop.willWait();
    scripted.advance(afterCheck);
    scripted.runLoop.didWake();
    scripted.advance(seconds);
    scripted.runLoop.willWait();
    scripted.advance(10 - afterCheck - seconds);
    return logged().size();
  }

  qbv::ScriptedPlatform scripted;
  QBVitalscopeANRMonitor_RunLoop* monitor = nullptr;

 private:
  std::size_t seen_ = 0;
};
