// Threads of their own that run only while the test lets them.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vitalscope/platform/dispatch.h"

namespace qbv {

// Each is a real thread, but it stands still until its time has come and the test's thread hands over to it;
// then the test's thread stands still until it sleeps or ends. So one runs at a time, in a fixed order: by
// due time, then by age. A thread that never ends stays asleep when this is destroyed, to the end of the
// process.
class ScriptedThreads {
 public:
  ScriptedThreads() = default;
  ScriptedThreads(const ScriptedThreads&) = delete;
  ScriptedThreads& operator=(const ScriptedThreads&) = delete;

  // Due at once. Times are nanoseconds of the scripted monotonic clock.
  DispatchThreadRef start(const std::string& name, Block entry, std::uint64_t now);
  // The earliest time at which a thread wants to go on; none when all have ended or run at present.
  std::optional<std::uint64_t> nextDue();
  // Lets the thread run that is due first; false when none is due.
  bool runOne(std::uint64_t now);
  // Names of the threads that have not ended, oldest first. Any thread.
  std::vector<std::string> names();

  // On one of these threads: sleeps until that time and answers true. Otherwise answers false at once.
  static bool sleepUntil(std::uint64_t time);

 private:
  struct Thread;
  static void threadMain(std::shared_ptr<Thread> self);

  std::mutex mutex_;
  std::vector<std::shared_ptr<Thread>> threads_;
};

}  // namespace qbv
