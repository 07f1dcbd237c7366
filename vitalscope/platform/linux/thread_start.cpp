#include "vitalscope/platform/linux/thread_start.h"

#include <pthread.h>

#include <csignal>
#include <memory>
#include <new>

namespace qbv::linux_backend {

namespace {

struct Start {
  const char* name;
  void (*entry)(void*);
  void* argument;
};

void* runThread(void* opaque) {
  const Start start = *std::unique_ptr<Start>(static_cast<Start*>(opaque));
  pthread_setname_np(pthread_self(), start.name);
  start.entry(start.argument);
  return nullptr;
}

sigset_t signalsOfOthers() {
  sigset_t set;
  sigfillset(&set);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) sigdelset(&set, fault);
  return set;
}

bool create(std::size_t stackBytes, Start* start) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  if (stackBytes != 0) pthread_attr_setstacksize(&attributes, stackBytes);
  pthread_t thread;
  const bool created = pthread_create(&thread, &attributes, runThread, start) == 0;
  pthread_attr_destroy(&attributes);
  return created;
}

}  // namespace

bool startThread(const char* name, std::size_t stackBytes, void (*entry)(void*), void* argument) {
  Start* const start = new (std::nothrow) Start{name, entry, argument};
  if (start == nullptr) return false;
  const sigset_t blocked = signalsOfOthers();
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, &blocked, &before);
  // Static thread-local storage of the host's libraries is taken out of the stack: where it is larger than
  // the size asked for, the default size is the way out.
  const bool created = create(stackBytes, start) || create(0, start);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (!created) delete start;
  return created;
}

}  // namespace qbv::linux_backend
