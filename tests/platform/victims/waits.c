#define _GNU_SOURCE
#include "waits.h"

#include <alloca.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#define NOINLINE __attribute__((noinline, noclone))
#if defined(__clang__)
#undef NOINLINE
#define NOINLINE __attribute__((noinline))
#endif
#define BARRIER __asm__ volatile("" ::: "memory")

static struct timespec deadline(clockid_t clock, const struct qbv_waiter* waiter) {
  struct timespec time;
  clock_gettime(clock, &time);
  time.tv_sec += waiter->seconds;
  time.tv_nsec += waiter->nanoseconds;
  if (time.tv_nsec >= 1000000000) ++time.tv_sec, time.tv_nsec -= 1000000000;
  return time;
}

static int milliseconds(const struct qbv_waiter* waiter) {
  return (int)(waiter->seconds * 1000 + waiter->nanoseconds / 1000000);
}

static int by_failure(int result) {
  return result == -1 && errno == EINTR;
}

NOINLINE static int wait_on_condition(const struct qbv_waiter* waiter) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  const struct timespec until = deadline(CLOCK_REALTIME, waiter);
  pthread_mutex_lock(&mutex);
  pthread_cond_timedwait(&condition, &mutex, &until);
  pthread_mutex_unlock(&mutex);
  return 0;
}

/* The bare instruction, in this very function's frame. */
NOINLINE static int wait_in_place(const struct qbv_waiter* waiter) {
#if defined(__x86_64__)
  const struct timespec time = {waiter->seconds, waiter->nanoseconds};
  register void* rest __asm__("r10") = 0;
  long result;
  __asm__ volatile("syscall"
                   : "=a"(result)
                   : "a"(SYS_ppoll), "D"(0), "S"(0), "d"(&time), "r"(rest)
                   : "rcx", "r11", "memory");
  return result == -EINTR;
#else
  return by_failure(poll(NULL, 0, milliseconds(waiter)));
#endif
}

NOINLINE static int wait_once(const struct qbv_waiter* waiter) {
  const struct timespec time = {waiter->seconds, waiter->nanoseconds};
  struct timeval limit = {waiter->seconds, waiter->nanoseconds / 1000};
  struct timespec until;
  struct epoll_event event;
  sigset_t signals;
  char byte;
  int result = 0;
  switch (waiter->wait) {
    case POLL:
      result = by_failure(poll(NULL, 0, milliseconds(waiter)));
      break;
    case PPOLL:
      result = by_failure(ppoll(NULL, 0, &time, NULL));
      break;
    case SELECT:
      result = by_failure(select(0, NULL, NULL, NULL, &limit));
      break;
    case EPOLL_WAIT:
      result = by_failure(epoll_wait(waiter->epoll, &event, 1, milliseconds(waiter)));
      break;
    case NANOSLEEP:
      result = by_failure(nanosleep(&time, NULL));
      break;
    case CLOCK_NANOSLEEP:
      result = clock_nanosleep(CLOCK_MONOTONIC, 0, &time, NULL) == EINTR;
      break;
    case SEM_TIMEDWAIT:
      until = deadline(CLOCK_REALTIME, waiter);
      result = by_failure(sem_timedwait(waiter->semaphore, &until));
      break;
    case CONDITION:
      result = wait_on_condition(waiter);
      break;
    case RECEIVE:
      setsockopt(waiter->socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
      result = by_failure((int)recv(waiter->socket, &byte, 1, 0));
      break;
    case SIGNAL_WAIT:
      sigemptyset(&signals);
      sigaddset(&signals, SIGUSR2);
      result = by_failure(sigtimedwait(&signals, NULL, &time));
      break;
    default:
      result = wait_in_place(waiter);
      break;
  }
  BARRIER;
  return result;
}

NOINLINE static int plain(const struct qbv_waiter* waiter) {
  const int result = wait_once(waiter);
  BARRIER;
  return result;
}

/* More than a page, and registers to keep over the call. */
NOINLINE static int with_buffer(const struct qbv_waiter* waiter, long a, long b, long c) {
  char bytes[9000];
  memset(bytes, (int)a, sizeof bytes);
  __asm__ volatile("" ::"r"(bytes) : "memory");
  const int result = wait_once(waiter);
  __asm__ volatile("" ::"r"(a), "r"(b), "r"(c), "r"(bytes) : "memory");
  return result;
}

/* A frame whose size only its own run knows. */
NOINLINE static int growing(const struct qbv_waiter* waiter, long size) {
  char* const bytes = alloca((size_t)size);
  memset(bytes, 0, (size_t)size);
  __asm__ volatile("" ::"r"(bytes) : "memory");
  const int result = wait_once(waiter);
  __asm__ volatile("" ::"r"(bytes) : "memory");
  return result;
}

NOINLINE static int many_inner(const struct qbv_waiter* waiter, long a, long b, long c, long d, long e,
                               long f, long g, long h) {
  const int result = wait_once(waiter);
  __asm__ volatile("" ::"r"(a), "r"(b + c), "r"(d + e), "r"(f + g + h) : "memory");
  return result;
}
/* The arguments that no register takes are pushed below the frame. */
NOINLINE static int many_arguments(const struct qbv_waiter* waiter, long a) {
  const int result = many_inner(waiter, a, a + 1, a + 2, a + 3, a + 4, a + 5, a + 6, a + 7);
  BARRIER;
  return result;
}

static int (*volatile through_pointer)(const struct qbv_waiter*) = plain;

/* With the compiler's help a jump, and no call. */
NOINLINE static int tail(const struct qbv_waiter* waiter) {
  BARRIER;
  return wait_once(waiter);
}

NOINLINE static int shaped(const struct qbv_waiter* waiter) {
  int result = 0;
  switch (waiter->shape) {
    case BUFFER:
      result = with_buffer(waiter, waiter->wait, waiter->shape, waiter->seconds);
      break;
    case GROWING:
      result = growing(waiter, 100 + 16 * waiter->wait);
      break;
    case MANY_ARGUMENTS:
      result = many_arguments(waiter, waiter->wait);
      break;
    case POINTER:
      result = through_pointer(waiter);
      break;
    case TAIL:
      result = tail(waiter);
      break;
    default:
      result = plain(waiter);
      break;
  }
  BARRIER;
  return result;
}

qbv_wait_function QBV_VARIANT;
int QBV_VARIANT(const struct qbv_waiter* waiter) {
  const int result = shaped(waiter);
  BARRIER;
  return result;
}
