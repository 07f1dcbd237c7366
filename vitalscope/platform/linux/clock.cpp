#include "vitalscope/platform/clock.h"

#include <cerrno>
#include <ctime>

#include "vitalscope/platform/linux/areas.h"

namespace qbv::linux_backend {

namespace {

class LinuxClock final : public Clock {
 public:
  AbsoluteTime CFAbsoluteTimeGetCurrent() override {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    // The whole seconds first: their difference is exact, so the fraction keeps its digits.
    return static_cast<double>(now.tv_sec) - kCFAbsoluteTimeIntervalSince1970 +
           static_cast<double>(now.tv_nsec) / 1e9;
  }

  std::uint64_t monotonicNanoseconds() override {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(now.tv_nsec);
  }

  TimeValue gettimeofday() override {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return {now.tv_sec, static_cast<std::int32_t>(now.tv_nsec / 1000)};
  }

  void usleep(std::uint32_t microseconds) override {
    timespec left{static_cast<std::time_t>(microseconds / 1'000'000),
                  static_cast<long>(microseconds % 1'000'000) * 1000};
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {
    }
  }
};

}  // namespace

Clock& clock() {
  static LinuxClock* const instance = new LinuxClock;
  return *instance;
}

}  // namespace qbv::linux_backend
