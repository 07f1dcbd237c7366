#include "vitalscope/platform/linux/sleep_state.h"

namespace qbv::linux_backend {

namespace {

// Reading two clocks one after the other can make the lead seem to grow: the thread may be held up in
// between.
constexpr std::int64_t kLeastSleep = 500'000'000;
constexpr int kPatienceInLooks = 2;

}  // namespace

std::vector<SleepEvent> SleepState::wake() {
  if (!asleep_) return {};
  asleep_ = false;
  looksSinceSlept_ = 0;
  return {SleepEvent::didWake};
}

std::vector<SleepEvent> SleepState::announced(bool sleeping, std::int64_t lead) {
  lead_ = lead;
  if (!sleeping) return wake();
  if (asleep_) return {};
  asleep_ = true;
  return {SleepEvent::willSleep};
}

std::vector<SleepEvent> SleepState::looked(std::int64_t lead) {
  const bool slept = lead - lead_ >= kLeastSleep;
  lead_ = lead;
  if (slept && !asleep_) return {SleepEvent::willSleep, SleepEvent::didWake};
  if (!asleep_ || (!slept && looksSinceSlept_ == 0)) return {};
  if (++looksSinceSlept_ <= kPatienceInLooks) return {};
  return wake();
}

std::vector<SleepEvent> SleepState::lostLoginManager() {
  return wake();
}

}  // namespace qbv::linux_backend
