#include "vitalscope/platform/linux/footprint.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <ctime>

#include "vitalscope/platform/linux/proc_text.h"
#include "vitalscope/platform/linux/process_identity.h"

namespace qbv::linux_backend {

namespace {

constexpr int kHighDescriptor = 960;  // below the usual limit of 1024, above what hosts count on

// The kept descriptor and the process that opened it (its high half); 0 for none.
std::atomic<std::uint64_t> kept{0};

std::uint64_t packed(std::int32_t process, int descriptor) {
  return (static_cast<std::uint64_t>(process) << 32) | static_cast<std::uint32_t>(descriptor);
}

std::optional<std::uint64_t> footprintFrom(int descriptor) {
  char text[8192];
  const ssize_t size = pread(descriptor, text, sizeof text, 0);
  if (size <= 0) return std::nullopt;
  return footprintOfStatus({text, static_cast<std::size_t>(size)});
}

int openHigh(const char* path) {
  const int low = open(path, O_RDONLY | O_CLOEXEC);
  if (low < 0) return -1;
  const int high = fcntl(low, F_DUPFD_CLOEXEC, kHighDescriptor);
  if (high < 0) return low;
  close(low);
  return high;
}

// Opens the file anew. A descriptor that is replaced is left alone: its number may be somebody else's by now.
std::optional<std::uint64_t> footprintAnew(std::uint64_t replaced) {
  const int descriptor = openHigh("/proc/self/status");
  if (descriptor < 0) return std::nullopt;
  const auto footprint = footprintFrom(descriptor);
  if (!kept.compare_exchange_strong(replaced, packed(processId(), descriptor))) close(descriptor);
  return footprint;
}

double seconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace

std::optional<std::uint64_t> processFootprint() {
  const std::uint64_t current = kept.load(std::memory_order_acquire);
  if (current != 0 && (current >> 32) == static_cast<std::uint32_t>(processId())) {
    const auto footprint = footprintFrom(static_cast<int>(current & 0xffffffff));
    if (footprint) return footprint;
  }
  return footprintAnew(current);
}

double bootSeconds() {
  return seconds(CLOCK_BOOTTIME);
}

double ticksInSeconds(std::uint64_t ticks) {
  return static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

std::optional<double> processStartMilliseconds() {
  char text[1024];
  const int file = open("/proc/self/stat", O_RDONLY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  const ssize_t size = pread(file, text, sizeof text, 0);
  close(file);
  if (size <= 0) return std::nullopt;
  const auto stat = parseStat({text, static_cast<std::size_t>(size)});
  if (!stat) return std::nullopt;
  const double bootedAt = seconds(CLOCK_REALTIME) - bootSeconds();
  return (bootedAt + ticksInSeconds(stat->startTicks)) * 1000.0;
}

}  // namespace qbv::linux_backend
