// The same calls as plain functions; with CALL_LOOP_INSTRUMENTED the compiler calls these two hooks around
// each, which read the clock as a profiler's would, and keep nothing.
#include <stdio.h>
#include <sys/time.h>
#include <time.h>

#define CALLS 20000
#define ROUNDS 1000

__attribute__((noinline)) int add(int value);

#ifdef CALL_LOOP_INSTRUMENTED
#define NOT_ITSELF __attribute__((no_instrument_function))
static struct timeval started[64];
static int depth;
static long longest;
NOT_ITSELF void __cyg_profile_func_enter(void* function, void* caller);
NOT_ITSELF void __cyg_profile_func_exit(void* function, void* caller);
void __cyg_profile_func_enter(void* function, void* caller) {
  (void)function, (void)caller;
  gettimeofday(&started[depth++ & 63], NULL);
}
void __cyg_profile_func_exit(void* function, void* caller) {
  (void)function, (void)caller;
  struct timeval now;
  gettimeofday(&now, NULL);
  const long taken = now.tv_usec - started[--depth & 63].tv_usec;
  if (taken > longest) longest = taken;
}
#else
#define NOT_ITSELF
#endif

int add(int value) {
  __asm__ volatile("");
  return value + 1;
}

NOT_ITSELF int main(void) {
  double best = 1e9;
  for (int round = 0; round < ROUNDS; ++round) {
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    int value = 0;
    for (int i = 0; i < CALLS; ++i) value = add(value);
    clock_gettime(CLOCK_MONOTONIC, &end);
    __asm__ volatile("" : : "r"(value));
    const double taken = (double)(end.tv_sec - start.tv_sec) * 1e9 + (double)(end.tv_nsec - start.tv_nsec);
    if (taken / CALLS < best) best = taken / CALLS;
  }
  printf("%.2f\n", best);
  return 0;
}
