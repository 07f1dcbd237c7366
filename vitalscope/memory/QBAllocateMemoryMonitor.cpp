#include "vitalscope/memory/QBAllocateMemoryMonitor.h"

#include "vitalscope/memory/allocation_state.h"
#include "vitalscope/platform/platform.h"
#include "vitalscope/platform/thread_counts.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/report/QBVitalscopeReport.h"

namespace {

constexpr char kStackFile[] = "/dump/stack_backtrace.mmap";

// What a report needs is made now: inside an allocation the host may hold any lock of its own, and must not
// be asked anything then.
void prepareReports() {
  void* address = nullptr;
  qbv::platform().task.backtrace(&address, 1);
  QBVitalscopeReport::sharedInstance();
}

}  // namespace

QBAllocateMemoryMonitor* QBAllocateMemoryMonitor::sharedInstance() {
  static QBAllocateMemoryMonitor* const instance = new QBAllocateMemoryMonitor;
  return instance;
}

QBAllocateMemoryMonitor::QBAllocateMemoryMonitor() {
  prepareReports();
  qbv::makeStackStore(QBVitalscopeReport::sharedInstance()->localLogFolderRootPath() + kStackFile,
                      sizeThreshold);
}

void QBAllocateMemoryMonitor::startMonitor() {
  qbv::allocationState.allocMonitorEnabled.store(true, std::memory_order_relaxed);
  const qbv::Platform& system = qbv::platform();
  const bool isInstalled = system.allocator.installMallocLogger(quib_malloc_stack_logger);
  system.allocator.countSmallBlocksFor(quib_malloc_stack_logger, qb_over_memory_bytes);
  if (!isInstalled) return;
  if (!system.allocator.mallocLoggerSeesHeap())
    system.log.NSLog("QBAllocateMemoryMonitor: this process has an allocator of its own, nothing is counted");
}

void QBAllocateMemoryMonitor::stop() {
  qbv::allocationState.allocMonitorEnabled.store(false, std::memory_order_relaxed);
  qbv::platform().allocator.countSmallBlocksFor(nullptr, 0);
}

void QBAllocateMemoryMonitor::handleAllocateOverMemory(std::int64_t kilobytes) {
  const qbv::Value extraData = qbv::Value::Dictionary{{"memorySize", kilobytes}};
  const std::string backtrace = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
  QBVitalscopeReport::sharedInstance()->reportWithBacktrace(backtrace, QBVReportReasonObjectMemoryOversize, 0,
                                                            extraData);
}

std::int64_t QBAllocateMemoryMonitor::currentAllocMemoryLiveCount() {
  return qbv::liveBlocks();
}

bool QBAllocateMemoryMonitor::allocMonitorEnabled() {
  return qbv::allocationState.allocMonitorEnabled.load(std::memory_order_relaxed);
}

qbv::MallocZone* QBAllocateMemoryMonitor::global_memory_zone() {
  return qbv::stackStore().global_memory_zone;
}

QBPtrsHashmap* QBAllocateMemoryMonitor::oom_ptrs_hashmap() {
  return qbv::stackStore().oom_ptrs_hashmap;
}

QBStacksHashmap* QBAllocateMemoryMonitor::oom_stacks_hashmap() {
  return qbv::stackStore().oom_stacks_hashmap;
}

std::string QBAllocateMemoryMonitor::log_path() {
  const std::string* const path = qbv::stackStore().log_path;
  return path != nullptr ? *path : std::string();
}

std::int64_t QBAllocateMemoryMonitor::topAllocSize() {
  return qbv::allocationState.topAllocSize.load(std::memory_order_relaxed);
}

std::int64_t QBAllocateMemoryMonitor::lastAllocOverMemoryTimestamp() {
  return qbv::allocationState.lastAllocOverMemoryTimestamp.load(std::memory_order_relaxed);
}
