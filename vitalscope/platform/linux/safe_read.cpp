#include "vitalscope/platform/linux/safe_read.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "vitalscope/platform/linux/process_identity.h"

namespace qbv::linux_backend {

namespace {

constexpr std::size_t kPipeStep = 4096;        // a pipe takes this much at once without blocking
constexpr std::size_t kLongestCopy = 1 << 30;  // the kernel copies less than 2 GB in one call

void* pointer(std::uint64_t address) {
  return reinterpret_cast<void*>(address);
}

// Moves one piece that lies within one page; false when it cannot be read.
bool moveThroughPipe(const int (&ends)[2], std::uint64_t address, std::size_t size, std::byte* buffer) {
  if (syscall(SYS_write, ends[1], address, size) != static_cast<long>(size)) return false;
  return syscall(SYS_read, ends[0], buffer, size) == static_cast<long>(size);
}

}  // namespace

std::ptrdiff_t readDirectly(std::uint64_t address, std::size_t size, void* buffer) {
  std::size_t done = 0;
  while (done < size) {
    const std::size_t step = std::min(size - done, kLongestCopy);
    const iovec to{static_cast<std::byte*>(buffer) + done, step};
    const iovec from{pointer(address + done), step};
    const long copied = syscall(SYS_process_vm_readv, processId(), &to, 1UL, &from, 1UL, 0UL);
    if (copied < 0 && errno != EFAULT) return -1;
    if (copied > 0) done += static_cast<std::size_t>(copied);
    if (copied < static_cast<long>(step)) break;
  }
  return static_cast<std::ptrdiff_t>(done);
}

std::size_t readThroughPipe(std::uint64_t address, std::size_t size, void* buffer) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return 0;
  std::size_t done = 0;
  while (done < size) {
    const std::size_t toPageEnd = kPipeStep - (address + done) % kPipeStep;
    const std::size_t step = std::min(size - done, toPageEnd);
    if (!moveThroughPipe(ends, address + done, step, static_cast<std::byte*>(buffer) + done)) break;
    done += step;
  }
  close(ends[0]);
  close(ends[1]);
  return done;
}

std::size_t safeRead(std::uint64_t address, std::size_t size, void* buffer) {
  const int savedErrno = errno;
  const std::ptrdiff_t direct = readDirectly(address, size, buffer);
  const std::size_t copied =
      direct >= 0 ? static_cast<std::size_t>(direct) : readThroughPipe(address, size, buffer);
  errno = savedErrno;
  return copied;
}

bool readWord(std::uint64_t address, std::uint64_t& word) {
  return safeRead(address, sizeof word, &word) == sizeof word;
}

}  // namespace qbv::linux_backend
