// The main thread's loop: where the main queue is drained and events are dispatched, and who may watch it.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// What a loop is about to do or has just done; several together are a mask.
using CFRunLoopActivity = std::uint32_t;
inline constexpr CFRunLoopActivity kCFRunLoopEntry = 1;
inline constexpr CFRunLoopActivity kCFRunLoopBeforeTimers = 2;
inline constexpr CFRunLoopActivity kCFRunLoopBeforeSources = 4;
inline constexpr CFRunLoopActivity kCFRunLoopBeforeWaiting = 32;
inline constexpr CFRunLoopActivity kCFRunLoopAfterWaiting = 64;
inline constexpr CFRunLoopActivity kCFRunLoopExit = 128;
inline constexpr CFRunLoopActivity kCFRunLoopAllActivities = 0x0FFFFFFF;

// The loops here know no modes but those that are common to all.
enum CFRunLoopMode { kCFRunLoopCommonModes };

struct CFRunLoopObserver;
using CFRunLoopObserverRef = CFRunLoopObserver*;
// Runs on the main thread, in the middle of its loop: quick, and without throwing.
using CFRunLoopObserverCallBack = void (*)(CFRunLoopObserverRef observer, CFRunLoopActivity activity,
                                           void* info);

// A host without a loop of its own calls run(); one that has a loop polls descriptor() and calls drain(). A
// host whose loop is GLib's (GTK; Qt as distributions build it) need do nothing on Linux: the main queue
// becomes a source of the default main context by itself.
//
// What observers hear of a pass:
//   own loop     before timers, before sources; before waiting and after waiting when it sleeps; then the
//                blocks run. Entry and exit around run() and runOnce(), nested ones included.
//   GLib         before waiting and after waiting around its poll, then before timers and before sources,
//                then it dispatches. A poll that does not wait is told as the exit of the pass before it. A
//                nested loop is told like the outer one, which goes on with the nested loop's last pass.
//   descriptor   before timers and before sources when drain() begins, exit when it ends. A host that calls
//                willWait() and didWake() has its whole pass told instead, and drain() tells no exit.
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
  // A host's own loop tells that it is about to sleep, and that it no longer sleeps. Always both, around each
  // wait. Main thread only.
  virtual void willWait() = 0;
  virtual void didWake() = 0;

  // Whether a pass of the main thread's loop has been seen, of whichever kind. Before that a thread that does
  // not answer may as well be starting, or have no loop at all: nothing may count as hung. Asking is also the
  // occasion on which a loop that came with a library loaded meanwhile is looked for, in the background. Any
  // thread; never waits.
  virtual bool mainLoopSeen() = 0;
  // Who turned the latest pass: "own loop" (run and runOnce), "GLib", "descriptor" (the host called drain()
  // or didWake()), or "none seen". Any thread.
  virtual const char* mainLoopKind() = 0;

  // The calling thread's loop: this one on the main thread; null on any other, which has none.
  virtual RunLoop* currentRunLoop() = 0;
  // An observer of these activities. Observers of an activity are called by ascending order, those of equal
  // order as they were added. One that does not repeat is called once. It is never called within its own
  // callback. Observers are never removed or freed. Any thread.
  virtual CFRunLoopObserverRef CFRunLoopObserverCreate(CFRunLoopActivity activities, bool repeats,
                                                       std::int64_t order, CFRunLoopObserverCallBack callback,
                                                       void* info) = 0;
  // From the next activity on, the observer is called. An observer is added once; null is ignored. Any
  // thread. Telling an activity takes no lock and no memory.
  virtual void CFRunLoopAddObserver(CFRunLoopObserverRef observer, CFRunLoopMode mode) = 0;

  // An event of the host's: it is sent as "sendEvent:" to the application object (the class message
  // "sharedApplication" of "NSApplication"), whose own method calls handle(context). Main thread; returns
  // when that has returned.
  virtual void sendEvent(void (*handle)(void* context), void* context) = 0;
  // The same later, in order with the blocks of the main queue, which are no events themselves. Any thread.
  virtual void postEvent(void (*handle)(void* context), void* context) = 0;
  // From now on events that the loop's toolkit dispatches go through "sendEvent:" too, where the toolkit
  // offers that and the host has not claimed it: GTK 3 whose event handler is still GTK's own. Takes effect
  // on the main thread, once such a toolkit is there; for good. Any thread; never waits.
  virtual void routeToolkitEvents() = 0;
};

}  // namespace qbv
