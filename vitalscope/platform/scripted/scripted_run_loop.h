// The main thread's loop, turned by the test.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "vitalscope/platform/run_loop.h"
#include "vitalscope/platform/scripted/scripted_dispatch.h"

namespace qbv {

// "Main thread only" means here: the thread that plays the main thread.
class ScriptedRunLoop final : public RunLoop {
 public:
  explicit ScriptedRunLoop(ScriptedDispatch& dispatch) : dispatch_(dispatch) {}

  // Blocks for real until another thread or a block calls stop(), draining what other threads bring. A stop()
  // while nothing runs is forgotten.
  void run() override;
  // Drains once. When nothing waits, a positive timeout moves the scripted clock by it and drains then; a
  // negative one blocks for real until another thread brings work.
  bool runOnce(int timeoutMilliseconds) override;
  void stop() override;
  int descriptor() override { return -1; }
  bool drain() override { return dispatch_.drainMainQueue(); }
  bool mainLoopSeen() override { return seen_.load(); }
  const char* mainLoopKind() override { return seen_.load() ? "own loop" : "none seen"; }
  // Whether a pass counts as seen; true unless a test says otherwise. Turning the loop changes nothing.
  void setMainLoopSeen(bool seen) { seen_.store(seen); }
  // Drains until the main queue is empty.
  void drainAll();

 private:
  ScriptedDispatch& dispatch_;
  std::atomic<bool> seen_{true};
  std::mutex mutex_;
  std::vector<bool> stopped_;  // one for each run() that runs, the innermost last
};

}  // namespace qbv
