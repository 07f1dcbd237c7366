#include <time.h>

#define STAYS_IN_STACK __attribute__((noinline, visibility("default")))

/* The empty statements after the calls keep them from becoming jumps, which would leave the stack. */
STAYS_IN_STACK int waitForSlowDisk(int seconds) {
  struct timespec left = {seconds, 0};
  while (nanosleep(&left, &left) != 0) {
  }
  __asm__ volatile("");
  return seconds;
}

STAYS_IN_STACK int loadSpellingDictionary(int seconds) {
  const int words = waitForSlowDisk(seconds);
  __asm__ volatile("");
  return words;
}

STAYS_IN_STACK void openDocument(int seconds) {
  loadSpellingDictionary(seconds);
  __asm__ volatile("");
}
