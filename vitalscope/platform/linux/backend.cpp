#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {

const Platform& platform() {
  static const Platform set{task(),      images(), runtime(), dispatch(), runLoop(), notifications(),
                            processes(), files(),  clock(),   dates(),    log(),     hostInfo()};
  return set;
}

}  // namespace qbv::linux_backend
