#include "blocked_work.h"

#include <time.h>

#define STAYS_IN_STACK __attribute__((noinline, visibility("default")))

static double now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

/* The empty statements at the ends keep the calls before them from becoming jumps. */
STAYS_IN_STACK void copyFromSlowShare(double seconds) {
  struct timespec left = {(time_t)seconds, 0};
  left.tv_nsec = (long)((seconds - (double)left.tv_sec) * 1e9);
  while (nanosleep(&left, &left) != 0) {
  }
  __asm__ volatile("");
}

STAYS_IN_STACK void importAttachments(double seconds) {
  copyFromSlowShare(seconds);
  __asm__ volatile("");
}

STAYS_IN_STACK void evaluateFormulas(double seconds) {
  const double end = now() + seconds;
  while (now() < end) {
  }
  __asm__ volatile("");
}

STAYS_IN_STACK void recalculateSheet(double seconds) {
  evaluateFormulas(seconds);
  __asm__ volatile("");
}
