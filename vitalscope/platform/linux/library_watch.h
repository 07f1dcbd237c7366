// Notices libraries that arrive while the process runs, so as to find the main loop that one of them brings.
#pragma once

namespace qbv::linux_backend {

// The main queue is in use: looks for a main loop to attach it to, now and, until there is one, at these
// occasions, none of which takes a thread of its own:
//   - the host calls dlopen, for what arrived before that call (where this library's `dlopen` comes before
//   the
//     C library's: linked or preloaded, not loaded later itself);
//   - lookForMainLoopSoon.
// Any thread that may wait for the loader. Cheap after the first call.
void watchForMainLoop();

// Looks on the global queue if libraries have arrived since the last look. Any thread; never waits.
void lookForMainLoopSoon();

}  // namespace qbv::linux_backend
