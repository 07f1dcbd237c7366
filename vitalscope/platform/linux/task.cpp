#include "vitalscope/platform/task.h"

#include <sys/mman.h>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/cpu_usage.h"
#include "vitalscope/platform/linux/footprint.h"
#include "vitalscope/platform/linux/own_backtrace.h"
#include "vitalscope/platform/linux/process_identity.h"
#include "vitalscope/platform/linux/requester.h"
#include "vitalscope/platform/linux/safe_read.h"
#include "vitalscope/platform/linux/thread_list.h"

namespace qbv::linux_backend {

namespace {

#if defined(__x86_64__)
constexpr std::uint64_t kAddressMask = 0x00007fffffffffff;
#elif defined(__aarch64__)
constexpr std::uint64_t kAddressMask = 0x0000ffffffffffff;
#endif

class LinuxTask final : public Task {
 public:
  ThreadPort mach_thread_self() override { return threadId(); }
  ThreadPort mainThread() override { return static_cast<ThreadPort>(processId()); }

  KernReturn task_threads(ThreadPort** list, std::uint32_t* count) override {
    return listThreads(list, count);
  }
  KernReturn mach_port_deallocate(ThreadPort) override { return KERN_SUCCESS; }
  KernReturn vm_deallocate(const void* address, std::size_t size) override {
    if (size == 0) return KERN_SUCCESS;
    return munmap(const_cast<void*>(address), wholePages(size)) == 0 ? KERN_SUCCESS : KERN_INVALID_ADDRESS;
  }

  KernReturn thread_info(ThreadPort thread, ThreadBasicInfo* info) override {
    const auto usage = recentUsage(thread);
    if (!usage) return KERN_INVALID_ARGUMENT;
    *info = {*usage, 0};
    return KERN_SUCCESS;
  }

  KernReturn thread_get_state(ThreadPort thread, ThreadState* state) override {
    Requester* const requester = Requester::current();
    return requester != nullptr ? requester->state(thread, *state) : KERN_FAILURE;
  }
  KernReturn thread_suspend(ThreadPort thread) override {
    Requester* const requester = Requester::present();
    return requester != nullptr ? requester->pin(thread) : KERN_INVALID_ARGUMENT;
  }
  KernReturn thread_resume(ThreadPort thread) override {
    Requester* const requester = Requester::present();
    return requester != nullptr ? requester->unpin(thread) : KERN_INVALID_ARGUMENT;
  }
  void willCaptureThreads(const ThreadPort* threads, std::uint32_t count) override {
    if (Requester* const requester = Requester::current()) requester->beginBatch({threads, count});
  }
  void didCaptureThreads() override {
    if (Requester* const requester = Requester::present()) requester->endBatch();
  }

  // Inlined it would have no frame of its own to begin with.
  [[gnu::noinline]] int backtrace(void** buffer, int size) override {
    Registers registers;
    readOwnRegisters(registers);
    return size <= 0 ? 0 : ownBacktrace(registers, buffer, static_cast<std::size_t>(size));
  }

  KernReturn vm_read_overwrite(std::uint64_t address, std::size_t size, void* buffer,
                               std::size_t* copied) override {
    const bool ours = Requester::copyFromRecords(address, size, buffer);
    const std::size_t done = ours ? size : safeRead(address, size, buffer);
    if (copied != nullptr) *copied = done;
    return done == size ? KERN_SUCCESS : KERN_INVALID_ADDRESS;
  }

  KernReturn task_info(TaskVmInfo* info) override {
    const auto footprint = processFootprint();
    if (!footprint) return KERN_FAILURE;
    info->phys_footprint = *footprint;
    return KERN_SUCCESS;
  }

  std::optional<double> processStartTimeMilliseconds() override { return processStartMilliseconds(); }
  std::uint64_t addressMask() override { return kAddressMask; }
};

}  // namespace

Task& task() {
  static LinuxTask* const instance = new LinuxTask;
  return *instance;
}

}  // namespace qbv::linux_backend
