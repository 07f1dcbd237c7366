#include "vitalscope/platform/linux/process_barrier.h"

#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace qbv::linux_backend {

namespace {

bool command(int which) {
  const int savedErrno = errno;
  const bool done = syscall(SYS_membarrier, which, 0, 0) == 0;
  errno = savedErrno;
  return done;
}

}  // namespace

bool prepareProcessBarrier() noexcept {
  return command(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) && command(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
}

void processBarrier() noexcept {
  // A process that was forked may have to prepare anew.
  if (!command(MEMBARRIER_CMD_PRIVATE_EXPEDITED)) prepareProcessBarrier();
}

}  // namespace qbv::linux_backend
