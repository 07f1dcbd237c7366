// Lets the companion tools look at this process where tracing is restricted.
#pragma once

namespace qbv::linux_backend {

// As long as one lives, programs that this process started may trace it even when only ancestors may
// otherwise (the restricted ptrace scope, 1). Nothing happens under any other scope. Nests, also over
// threads. The kernel keeps one such permission for a process and cannot tell which: one that the host itself
// gave before is replaced, and gone afterwards. Any thread, not in signal handlers.
class AllowedTracer {
 public:
  AllowedTracer();
  ~AllowedTracer();
  AllowedTracer(const AllowedTracer&) = delete;
  AllowedTracer& operator=(const AllowedTracer&) = delete;

 private:
  const bool given_;
};

}  // namespace qbv::linux_backend
