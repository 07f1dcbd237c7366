#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"

namespace qbv::linux_backend {

const Platform& platform() {
  watchForks();
  static const Platform set{task(),          images(),    runtime(),   dispatch(), runLoop(),
                            notifications(), processes(), files(),     clock(),    dates(),
                            log(),           hostInfo(),  allocator(), devices(),  windows()};
  return set;
}

}  // namespace qbv::linux_backend
