#include "vitalscope/platform/log.h"

#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>

#include "vitalscope/platform/linux/areas.h"
#include "vitalscope/platform/linux/fork_guard.h"
#include "vitalscope/platform/linux/log_sinks.h"

namespace qbv::linux_backend {

namespace {

// "2026-03-29 14:05:06.123 program[1234:1240] ": local time, process and thread.
std::string linePrefix() {
  const AbsoluteTime now = clock().CFAbsoluteTimeGetCurrent();
  const CalendarTime local = dates().localTime(now);
  char text[64];
  std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d.%03d ", local.year, local.month, local.day,
                local.hour, local.minute, local.second, static_cast<int>((now - std::floor(now)) * 1000));
  return text + std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) + ":" +
         std::to_string(gettid()) + "] ";
}

class LinuxLog final : public Log {
 public:
  LinuxLog() { watchForks(); }

  void NSLog(const std::string& message) override {
    const bool ended = !message.empty() && message.back() == '\n';
    writeWhole(STDERR_FILENO, linePrefix() + message + (ended ? "" : "\n"));
    sendToSystemLog("/dev/log", message);
  }
};

}  // namespace

Log& log() {
  static LinuxLog* const instance = new LinuxLog;
  return *instance;
}

}  // namespace qbv::linux_backend
