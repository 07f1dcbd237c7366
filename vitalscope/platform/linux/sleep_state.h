// When the machine goes to sleep and wakes, put together from two witnesses.
#pragma once

#include <cstdint>
#include <vector>

namespace qbv::linux_backend {

enum class SleepEvent { willSleep, didWake };

// The login manager announces a sleep before it begins and says when it is over. The clocks tell afterwards:
// the one that goes on in sleep gets ahead of the one that stands still. What both report is told once; every
// sleep is told as willSleep, then didWake. Not synchronised.
class SleepState {
 public:
  // The lead of the clock that goes on over the one that stands still, in nanoseconds, as it is now.
  explicit SleepState(std::int64_t lead) : lead_(lead) {}

  // The login manager's word (true: about to sleep), with the lead at this moment.
  std::vector<SleepEvent> announced(bool sleeping, std::int64_t lead);
  // A look at the clocks. After a sleep that was announced, the login manager has the next word; when it is
  // not heard until the second look after that, the machine counts as awake.
  std::vector<SleepEvent> looked(std::int64_t lead);
  // The login manager will say nothing more.
  std::vector<SleepEvent> lostLoginManager();

  bool asleep() const noexcept { return asleep_; }

 private:
  std::vector<SleepEvent> wake();

  std::int64_t lead_;
  bool asleep_ = false;
  int looksSinceSlept_ = 0;  // 0: has not slept since the announcement
};

}  // namespace qbv::linux_backend
