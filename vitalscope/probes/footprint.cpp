#include "vitalscope/probes/footprint.h"

#include "vitalscope/platform/platform.h"

namespace qbv {

double physicalFootprintMegabytes() {
  TaskVmInfo info;
  if (platform().task.task_info(&info) != KERN_SUCCESS) return 0.0;
  return static_cast<double>(info.phys_footprint) / 1024 / 1024;
}

}  // namespace qbv
