#include "vitalscope/probes/QBVitalscopeCPU.h"

#include <algorithm>

#include "vitalscope/platform/platform.h"

namespace {

float percentOfCore(const qbv::ThreadBasicInfo& info) {
  return static_cast<float>(info.cpu_usage) / 1000.0F * 100.0F;
}

void release(qbv::Task& task, const qbv::ThreadPort* list, std::uint32_t from, std::uint32_t count) {
  for (std::uint32_t i = from; i < count; ++i) task.mach_port_deallocate(list[i]);
}

}  // namespace

double QBVitalscopeCPU::cpuUsageForApp() {
  qbv::Task& task = qbv::platform().task;
  qbv::ThreadPort* list = nullptr;
  std::uint32_t count = 0;
  if (task.task_threads(&list, &count) != qbv::KERN_SUCCESS) return -1;
  const std::size_t size = std::size_t{count} * sizeof(qbv::ThreadPort);

  float total = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    qbv::ThreadBasicInfo info;
    if (task.thread_info(list[i], &info) != qbv::KERN_SUCCESS) {
      release(task, list, i, count);
      task.vm_deallocate(list, size);
      return -1;
    }
    if ((info.flags & qbv::TH_FLAGS_IDLE) == 0) total += percentOfCore(info);
    task.mach_port_deallocate(list[i]);
  }
  if (task.vm_deallocate(list, size) != qbv::KERN_SUCCESS) {
    qbv::assertionFailure("+[QBVitalscopeCPU cpuUsageForApp]", "QBVitalscopeCPU", 50, "kr == KERN_SUCCESS");
  }
  return std::max(total, 0.0F);
}

double QBVitalscopeCPU::cpuUsageOfThread(qbv::ThreadPort thread) {
  qbv::ThreadBasicInfo info;
  if (qbv::platform().task.thread_info(thread, &info) != qbv::KERN_SUCCESS) return -1;
  return percentOfCore(info);
}
