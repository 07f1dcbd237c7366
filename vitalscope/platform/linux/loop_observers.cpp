#include "vitalscope/platform/linux/loop_observers.h"

namespace qbv::linux_backend {

RunLoopObservers& loopObservers() {
  static RunLoopObservers* const instance = new RunLoopObservers;
  return *instance;
}

}  // namespace qbv::linux_backend
