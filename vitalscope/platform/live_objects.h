// How many objects are alive, counted on every thread at once and never below 0.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// One count for the process. A thread adds to its own share and takes from it; where that is used up it takes
// one from another thread's. So threads that allocate and free their own objects do not meet, and yet a
// removal is refused exactly when there was an instant during it at which the whole count was 0. Any thread;
// no lock, no heap memory. Good for 1,073,741,823 objects per thread.
class QBV_EXPORT LiveObjects {
 public:
  LiveObjects() = delete;
  // Where the system allows it, threads whose first count comes later change their shares without locked
  // instructions, until another thread takes from them: that costs some microseconds once per share. Best
  // called while there is one thread.
  static void prepare() noexcept;
  static void add() noexcept;
  // False, and nothing changed, when the count is 0.
  static bool remove() noexcept;
  // Exact when no other thread counts meanwhile.
  static std::int64_t count() noexcept;
};

}  // namespace qbv
