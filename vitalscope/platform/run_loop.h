// The main thread's loop: where the main queue is drained.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

// A host without a loop of its own calls run(); one that has a loop polls descriptor() and calls drain(). A
// host whose loop is GLib's (GTK; Qt as distributions build it) need do nothing on Linux: the main queue
// becomes a source of the default main context by itself.
class QBV_EXPORT RunLoop {
 public:
  virtual ~RunLoop() = default;

  // Drains the main queue and sleeps until there is more, until stop(). Main thread only; may nest.
  virtual void run() = 0;
  // One pass: waits at most `timeoutMilliseconds` (0: not at all, negative: without end) and drains once.
  // Main thread only. Answers whether any block ran.
  virtual bool runOnce(int timeoutMilliseconds) = 0;
  // Makes the innermost run() return after its present pass. Any thread.
  virtual void stop() = 0;

  // Becomes readable when the main queue has work; -1 when the platform has none. It stays valid for the
  // process's life and is closed on exec. Any thread.
  virtual int descriptor() = 0;
  // Runs the blocks that are waiting now (not those they add) and clears the descriptor. Main thread only;
  // safe when called from inside a block. Answers whether any block ran.
  virtual bool drain() = 0;

  // Whether a pass of the main thread's loop has been seen, of whichever kind. Before that a thread that does
  // not answer may as well be starting, or have no loop at all: nothing may count as hung. Asking is also the
  // occasion on which a loop that came with a library loaded meanwhile is looked for, in the background. Any
  // thread; never waits.
  virtual bool mainLoopSeen() = 0;
  // Who turned the latest pass: "own loop" (run and runOnce), "GLib", "descriptor" (the host called drain()),
  // or "none seen". Any thread.
  virtual const char* mainLoopKind() = 0;
};

}  // namespace qbv
