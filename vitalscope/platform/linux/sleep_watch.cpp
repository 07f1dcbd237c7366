#include "vitalscope/platform/linux/sleep_watch.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <time.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <mutex>

#include "vitalscope/platform/linux/descriptor.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/login_manager.h"
#include "vitalscope/platform/linux/sleep_state.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::linux_backend {

namespace {

constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;
constexpr int kLookMilliseconds = 30'000;

std::int64_t nanoseconds(clockid_t clock) {
  timespec time{};
  ::clock_gettime(clock, &time);
  return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

// How far the clock that goes on in sleep is ahead of the one that stands still.
std::int64_t clockLead() {
  return nanoseconds(CLOCK_BOOTTIME) - nanoseconds(CLOCK_MONOTONIC);
}

// Becomes readable when the wall clock is set, which the kernel also does on waking; the timer itself is
// never due. None when the kernel has no such thing.
Descriptor clockSetDescriptor() {
  Descriptor timer = outOfTheWay(Descriptor(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)));
  itimerspec never{};
  never.it_value.tv_sec = 9'000'000'000;  // the year 2255
  if (!timer ||
      ::timerfd_settime(timer.get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) != 0)
    return Descriptor();
  return timer;
}

class SleepWatch {
 public:
  explicit SleepWatch(NotificationCentre& centre)
      : centre_(centre), state_(clockLead()), clockSet_(clockSetDescriptor()) {}

  void run() {
    loginManager_ =
        LoginManager::connect([this](bool sleeping) { post(state_.announced(sleeping, clockLead())); });
    for (;;) {
      wait(processBus());
      post(state_.looked(clockLead()));
    }
  }

 private:
  std::optional<LoginManager::Wait> processBus() {
    if (loginManager_ == nullptr) return std::nullopt;
    const auto waiting = loginManager_->process();
    if (!waiting) {
      loginManager_.reset();
      post(state_.lostLoginManager());
    }
    return waiting;
  }

  void wait(const std::optional<LoginManager::Wait>& bus) {
    pollfd entries[] = {{clockSet_.get(), POLLIN, 0},
                        {bus ? bus->descriptor : -1, bus ? bus->events : short{0}, 0}};
    retried([&] { return ::poll(entries, 2, timeout(bus)); });
    std::uint64_t expirations = 0;
    // Says that the clock was set, and makes the descriptor quiet until the next time.
    if (entries[0].revents != 0 && ::read(clockSet_.get(), &expirations, sizeof expirations) < 0 &&
        errno != ECANCELED && errno != EAGAIN)
      clockSet_.reset();
  }

  // Milliseconds for poll.
  int timeout(const std::optional<LoginManager::Wait>& bus) const {
    // A login manager that announced a sleep may fail to say that it is over.
    const int longest = bus && !state_.asleep() ? -1 : kLookMilliseconds;
    if (!bus || bus->deadline == std::numeric_limits<std::uint64_t>::max()) return longest;
    const auto now = static_cast<std::uint64_t>(nanoseconds(CLOCK_MONOTONIC));
    const std::uint64_t left = bus->deadline > now ? (bus->deadline - now) / 1'000'000 + 1 : 0;
    const int untilDeadline = static_cast<int>(std::min<std::uint64_t>(left, kLookMilliseconds));
    return longest < 0 ? untilDeadline : std::min(longest, untilDeadline);
  }

  void post(const std::vector<SleepEvent>& events) {
    for (const SleepEvent event : events)
      centre_.post(event == SleepEvent::willSleep ? NSWorkspaceWillSleepNotification
                                                  : NSWorkspaceDidWakeNotification);
  }

  NotificationCentre& centre_;
  SleepState state_;
  Descriptor clockSet_;
  std::unique_ptr<LoginManager> loginManager_;
};

// Lives as long as the process.
void runWatch(void* centre) {
  (new SleepWatch(*static_cast<NotificationCentre*>(centre)))->run();
}

}  // namespace

void startSleepWatch(NotificationCentre& centre) {
  static std::once_flag once;
  watchForks();
  if (isForkedChild()) return;
  std::call_once(once, [&] { startThread("quib sleep", kHandlerStackBytes, runWatch, &centre); });
}

}  // namespace qbv::linux_backend
