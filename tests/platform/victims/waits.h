/* Threads that wait, in functions of every shape a compiler gives to frames. Compiled once for each way of
   compiling; QBV_VARIANT(name) makes the names of each apart. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

enum qbv_shape { PLAIN, BUFFER, GROWING, MANY_ARGUMENTS, POINTER, TAIL, SHAPES };
enum qbv_wait {
  POLL,
  PPOLL,
  SELECT,
  EPOLL_WAIT,
  NANOSLEEP,
  CLOCK_NANOSLEEP,
  SEM_TIMEDWAIT,
  CONDITION,
  RECEIVE,
  SIGNAL_WAIT,
  SYSTEM_CALL,
  WAITS
};

struct qbv_waiter {
  int wait;         /* enum qbv_wait */
  int shape;        /* enum qbv_shape */
  long nanoseconds; /* how long, below 1 s; or seconds, if that is not 0 */
  long seconds;
  int socket, epoll; /* on which nothing ever comes */
  void* semaphore;   /* nobody posts it */
};

/* Waits once; 1 when it was interrupted, else 0. */
typedef int qbv_wait_function(const struct qbv_waiter* waiter);

#ifdef __cplusplus
}
#endif
