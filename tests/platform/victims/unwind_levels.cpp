#include "unwind_levels.h"

#include <poll.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#define NOINLINE __attribute__((noinline, noclone))

namespace victims {

void* volatile gReturnsInto[kLevels];

namespace {

int compare(const void* left, const void* right) {
  return std::memcmp(left, right, 1);
}

NOINLINE void act(unsigned what) {
  char bytes[64] = "the quick brown fox jumps over the lazy dog";
  timespec shortly{0, 20000};
  switch (what % 6) {
    case 0:
      nanosleep(&shortly, nullptr);
      break;
    case 1:
      poll(nullptr, 0, 0);
      break;
    case 2:
      qsort(bytes, 43, 1, compare);
      break;
    case 3:
      std::free(std::malloc(10 + what % 1000));
      break;
    case 4:
      std::snprintf(bytes, sizeof bytes, "%u %.4f", what, what / 7.0);
      break;
    default:
      sched_yield();
  }
  asm volatile("" ::"r"(bytes) : "memory");
}

template <int level>
NOINLINE int down(int target, unsigned what) {
  if constexpr (level > 0) gReturnsInto[level - 1] = __builtin_return_address(0);
  // Frames of different sizes, that save different registers.
  volatile char filler[8 + 24 * (level % 5)];
  filler[0] = static_cast<char>(what);
  int result = static_cast<int>(what % 7);
  if (level >= target) {
    act(what);
  } else if constexpr (level + 1 < kLevels) {
    result += down<level + 1>(target, what * 5 + 1);
  }
  asm volatile("" ::: "memory");
  return result + filler[0] + target;
}

}  // namespace

void descend(int level, unsigned what) {
  down<0>(level, what);
  asm volatile("" ::: "memory");
}

}  // namespace victims
