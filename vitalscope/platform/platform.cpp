#include "vitalscope/platform/platform.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace qbv {

namespace {
std::atomic<const Platform*> installed{nullptr};
}

const Platform& platform() noexcept {
  const Platform* const current = installed.load(std::memory_order_acquire);
  return current != nullptr ? *current : linux_backend::platform();
}

ScopedPlatform::ScopedPlatform(const Platform& replacement) : previous_(installed.exchange(&replacement)) {}

ScopedPlatform::~ScopedPlatform() {
  installed.store(previous_);
}

void assertionFailure(const char* function, const char* file, int line, const char* expression) {
  std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expression, function, file,
               line);
  std::abort();
}

}  // namespace qbv
