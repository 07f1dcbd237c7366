#include "vitalscope/platform/linux/allowed_tracer.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <mutex>

#include "vitalscope/platform/linux/descriptor.h"

namespace qbv::linux_backend {

namespace {

constinit std::mutex gLock;
constinit int gGiven = 0;

bool onlyAncestorsMayTrace() {
  const Descriptor file(::open("/proc/sys/kernel/yama/ptrace_scope", O_RDONLY | O_CLOEXEC));
  char scope = 0;
  return file.get() >= 0 && ::read(file.get(), &scope, 1) == 1 && scope == '1';
}

}  // namespace

AllowedTracer::AllowedTracer() : given_(onlyAncestorsMayTrace()) {
  if (!given_) return;
  const std::lock_guard lock(gLock);
  // The permission covers the named process and whatever descends from it: naming ourselves, before the child
  // exists, leaves no moment in which the child would be refused.
  if (gGiven++ == 0) ::prctl(PR_SET_PTRACER, ::getpid(), 0, 0, 0);
}

AllowedTracer::~AllowedTracer() {
  if (!given_) return;
  const std::lock_guard lock(gLock);
  if (--gGiven == 0) ::prctl(PR_SET_PTRACER, 0, 0, 0, 0);
}

}  // namespace qbv::linux_backend
