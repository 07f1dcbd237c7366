#include "unwind_scenes.h"

#include <alloca.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#define NOINLINE __attribute__((noinline, noclone))

namespace victims {

namespace {

using Ready = void (*)();

thread_local Ready tReady;
thread_local int tDepth;

// Keeps calls from becoming jumps.
NOINLINE void after() {
  asm volatile("" ::: "memory");
}

NOINLINE void waitInPoll() {
  tReady();
  while (poll(nullptr, 0, -1) < 0) {
  }
  after();
}

NOINLINE void waitInNanosleep() {
  tReady();
  timespec left{100000, 0};
  while (nanosleep(&left, &left) != 0) {
  }
  after();
}

NOINLINE void waitForCondition() {
  static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  static pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  pthread_mutex_lock(&mutex);
  tReady();
  while (tDepth >= 0) pthread_cond_wait(&condition, &mutex);
  pthread_mutex_unlock(&mutex);
  after();
}

NOINLINE void sortDeeper();

int compareDeeper(const void* left, const void* right) {
  if (tDepth-- > 0) {
    sortDeeper();
  } else {
    waitInPoll();
  }
  after();
  return std::memcmp(left, right, 1);
}

NOINLINE void sortDeeper() {
  char bytes[2] = {2, 1};
  qsort(bytes, sizeof bytes, 1, compareDeeper);
  after();
}

void sceneSort(Ready) {
  tDepth = 40;
  sortDeeper();
  after();
}

NOINLINE int recurse(int depth, int salt) {
  volatile int keep[8] = {depth, salt};
  if (depth == 0) {
    waitInNanosleep();
  } else {
    recurse(depth - 1, salt * 3 + keep[1]);
  }
  after();
  return keep[0] + keep[7];
}

void sceneRecursion(Ready) {
  recurse(150, 1);
  after();
}

NOINLINE void spin() {
  tReady();
  volatile unsigned long turns = 0;
  for (;;) turns = turns + 1;
}

void onSignal(int) {
  waitInPoll();
  after();
}

NOINLINE void raiseIn(int number, int flags) {
  struct sigaction action {};
  action.sa_handler = onSignal;
  action.sa_flags = flags;
  sigaction(number, &action, nullptr);
  pthread_kill(pthread_self(), number);
  after();
}

void sceneHandler(Ready) {
  raiseIn(SIGUSR1, 0);
  after();
}

void sceneAlternateStack(Ready) {
  static char memory[64 * 1024];
  stack_t stack{};
  stack.ss_sp = memory;
  stack.ss_size = sizeof memory;
  sigaltstack(&stack, nullptr);
  raiseIn(SIGUSR2, SA_ONSTACK);
  after();
}

// A fault in the middle of a function, handled: the frame below the handler stands at an instruction that is
// not a call.
NOINLINE int readThrough(const volatile int* pointer) {
  return *pointer + 1;
}

void sceneFault(Ready) {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigaction(SIGBUS, &action, nullptr);
  const int* page =
      static_cast<const int*>(mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  sigaction(SIGSEGV, &action, nullptr);
  readThrough(page);
  after();
}

NOINLINE void throughVariableFrame(unsigned size) {
  char* bytes = static_cast<char*>(alloca(size));
  std::memset(bytes, 1, size);
  waitInPoll();
  asm volatile("" ::"r"(bytes) : "memory");
}

NOINLINE void throughAlignedFrame(unsigned size) {
  alignas(128) char aligned[256];
  char* bytes = static_cast<char*>(alloca(size));
  std::memset(aligned, 1, sizeof aligned);
  asm volatile("" ::"r"(aligned), "r"(bytes) : "memory");
  throughVariableFrame(size);
  asm volatile("" ::"r"(aligned), "r"(bytes) : "memory");
}

void sceneVariableFrames(Ready) {
  throughAlignedFrame(100U + static_cast<unsigned>(getpid()) % 64U);
  after();
}

void inContext() {
  waitInPoll();
  after();
}

void sceneContext(Ready) {
  static char memory[64 * 1024];
  static ucontext_t inner, outer;
  getcontext(&inner);
  inner.uc_stack.ss_sp = memory;
  inner.uc_stack.ss_size = sizeof memory;
  inner.uc_link = &outer;
  makecontext(&inner, inContext, 0);
  swapcontext(&outer, &inner);
  after();
}

// The call is the function's last instruction: the return address belongs to what follows.
[[noreturn]] NOINLINE void neverReturns() {
  for (;;) waitInPoll();
}
NOINLINE void callsTheEnd() {
  neverReturns();
}

void sceneNoReturn(Ready) {
  callsTheEnd();
  after();
}

void sceneSpin(Ready) {
  spin();
  after();
}
void scenePoll(Ready) {
  waitInPoll();
  after();
}
void sceneNanosleep(Ready) {
  waitInNanosleep();
  after();
}
void sceneCondition(Ready) {
  waitForCondition();
  after();
}

template <void (*body)(Ready)>
void start(Ready ready) {
  tReady = ready;
  body(ready);
  after();
}

}  // namespace

const Scene kScenes[] = {
    {"sort", start<sceneSort>, false, false, false},
    {"recursion", start<sceneRecursion>, false, false, false},
    {"poll", start<scenePoll>, false, false, false},
    {"nanosleep", start<sceneNanosleep>, false, false, false},
    {"condition", start<sceneCondition>, false, false, false},
    {"handler", start<sceneHandler>, false, false, false},
    {"alternate stack", start<sceneAlternateStack>, false, true, false},
    {"fault", start<sceneFault>, false, false, false},
    {"variable frames", start<sceneVariableFrames>, true, false, false},
    {"context", start<sceneContext>, false, true, false},
    {"no return", start<sceneNoReturn>, false, false, false},
    {"spin", start<sceneSpin>, false, false, true},
};
const unsigned kSceneCount = sizeof kScenes / sizeof kScenes[0];

}  // namespace victims
