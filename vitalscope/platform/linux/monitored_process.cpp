#include "vitalscope/platform/monitored_process.h"

#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

#include "vitalscope/platform/linux/fork_guard.h"

namespace qbv {

namespace {

bool isTarget() noexcept {
  const char* const target = std::getenv("QUIBVITALSCOPE_TARGET");
  if (target == nullptr) return true;
  const std::string_view text(target);
  pid_t meant = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), meant);
  return error == std::errc() && end == text.data() + text.size() && meant == ::getpid();
}

}  // namespace

bool monitoredProcess() noexcept {
  static const bool answer = isTarget();
  return answer;
}

bool forkedChild() noexcept {
  return linux_backend::isForkedChild();
}

}  // namespace qbv
