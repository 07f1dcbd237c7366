// A host for an application that knows nothing of the monitor: preloaded into it.
#pragma once

#include <atomic>
#include <cstdint>

#include "host/standin/settings.h"
#include "vitalscope/platform/value.h"

namespace qbv::standin {

// At load it only defines the host's answers and posts one block on the main queue, so that a program without
// a main loop, or one that is only started to end, runs as without it: no thread, no file, no descriptor that
// it could trip over but the main queue's own. The block runs at the first pass of the application's main
// loop, and there the user signs in; what watches the application and talks to the outside is made after
// that, on a worker thread.
class StandIn {
 public:
  // Made on the first call, never destroyed.
  static StandIn& shared();

  // Once, when the library is loaded, on the thread that loads it.
  void load(const Settings& settings);

  // The facts of the control protocol's status. Any thread.
  Value status() const;
  // Tells the system log that a process which has run for some time never passed a main loop, so that nothing
  // was watched. At exit; nothing goes to standard error, which belongs to the program.
  void reportMissingMainLoop() const;

 private:
  void observeHost();
  void signIn();
  void watchRunLoop();
  void watchApplication();
  void setActive(bool active, const char* source);

  std::atomic<std::uint64_t> loadedAt_{0};        // nanoseconds of the monotonic clock
  std::atomic<std::uint64_t> mainLoopSeenAt_{0};  // the same; 0 before
  std::atomic<bool> signedIn_{false};
  std::atomic<bool> active_{false};
  std::atomic<bool> watchRunLoop_{false};  // wanted from sign-in on
  std::atomic<bool> watchingRunLoop_{false};
  std::atomic<const char*> activitySource_{"always"};
  Uploads* uploads_ = nullptr;  // null without consent; set at load, never destroyed
};

}  // namespace qbv::standin
