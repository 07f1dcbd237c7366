// What a hook on the hot path may use: plain functions, reached without a virtual call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// The wall clock as the C library tells it.
struct TimeOfDay {
  std::int64_t seconds;
  std::int64_t microseconds;
};
using TimeOfDayFunction = int(TimeOfDay* now, void* zone);
// The C library's gettimeofday: on common systems no system call, and no register but general ones is
// touched.
QBV_EXPORT TimeOfDayFunction* timeOfDayFunction() noexcept;

// One value per thread, and what is called with it when its thread ends (not when the process does). A value
// that is set during that is taken care of as well, within the system's limits. Never given back.
class QBV_EXPORT ThreadKey {
 public:
  explicit ThreadKey(void (*destroy)(void*)) noexcept;
  // For the calling thread. False without memory.
  bool set(void* value) const noexcept;

 private:
  unsigned key_ = 0;
  bool made_;
};

// Whether the calling thread is the one that the process began with. A system call.
QBV_EXPORT bool isMainThread() noexcept;

// The calling thread's own stack; empty where that cannot be found out. Takes up to 0.1 ms, and memory.
struct AddressSpan {
  std::uintptr_t low = 0;
  std::uintptr_t high = 0;
  bool contains(std::uintptr_t address) const noexcept { return address >= low && address < high; }
};
QBV_EXPORT AddressSpan stackOfThread() noexcept;

// A range of addresses of whole pages without memory behind it, so that what grows in it need not move; null
// when there is none. commitPages puts zeroed memory behind a part: false when there is none left.
QBV_EXPORT void* reservePages(std::size_t bytes) noexcept;
QBV_EXPORT bool commitPages(void* at, std::size_t bytes) noexcept;
QBV_EXPORT void releasePages(void* at, std::size_t bytes) noexcept;

}  // namespace qbv
