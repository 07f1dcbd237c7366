// How busy the process is, in percent of one processor core.
#pragma once

#include "vitalscope/platform/export.h"
#include "vitalscope/platform/task.h"

// Stateless: the kernel's figure is already a decayed average of the recent past, so nothing here sleeps or
// remembers. A core used fully counts 100. Any thread; takes no memory from the heap.
class QBV_EXPORT QBVitalscopeCPU {
 public:
  QBVitalscopeCPU() = delete;

  // Sum over all threads but the kernel's idle one; never negative, above 100 when several threads are busy.
  // -1 when the kernel cannot be asked, also when a thread ends while the list is walked.
  static double cpuUsageForApp();
  // One thread's figure, idle or not; -1 for a thread that is not there. The port stays the caller's.
  static double cpuUsageOfThread(qbv::ThreadPort thread);
};
