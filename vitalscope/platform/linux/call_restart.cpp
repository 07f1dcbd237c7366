#include "vitalscope/platform/linux/call_restart.h"

#include <linux/futex.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

namespace qbv::linux_backend {

namespace {

// The numbers are the machine's own.
constexpr long kRestarted[] = {
    SYS_wait4, SYS_waitid, SYS_flock, SYS_openat,
#if defined(SYS_open)
    SYS_open,
#endif
};

// Restarted on pipes, terminals and files; on a socket only if it has no time limit.
constexpr long kTransfers[] = {SYS_read,    SYS_write,    SYS_readv,  SYS_writev,
                               SYS_pread64, SYS_pwrite64, SYS_preadv, SYS_pwritev};

bool isOneOf(const auto& calls, long number) {
  return std::find(std::begin(calls), std::end(calls), number) != std::end(calls);
}

bool isSocket(int descriptor) {
  const int savedErrno = errno;
  int type = 0;
  socklen_t size = sizeof type;
  const bool socket =
      getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &size) == 0 || (errno != ENOTSOCK && errno != EBADF);
  errno = savedErrno;
  return socket;
}

// Mutexes, condition variables and joins without a time limit.
bool waitsForEver(const SystemCallLine& line) {
  const auto operation = static_cast<int>(line.arguments[1]) & FUTEX_CMD_MASK;
  const bool plainWait = operation == FUTEX_WAIT || operation == FUTEX_WAIT_BITSET ||
                         operation == FUTEX_LOCK_PI || operation == FUTEX_LOCK_PI2;
  return plainWait && line.arguments[3] == 0;
}

}  // namespace

bool waitSurvivesSignal(const SystemCallLine& line) {
  constexpr long kNoCall = -1;
  if (line.number == kNoCall || isOneOf(kRestarted, line.number)) return true;
  if (line.number == SYS_futex) return waitsForEver(line);
  return isOneOf(kTransfers, line.number) && !isSocket(static_cast<int>(line.arguments[0]));
}

}  // namespace qbv::linux_backend
