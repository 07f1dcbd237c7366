#include "host/standin/activity.h"

#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "host/standin/x11_display.h"
#include "vitalscope/platform/linux/thread_start.h"

namespace qbv::standin {

namespace {

struct Watch {
  std::string display;
  int processId;
  bool waylandSession;
  ActivityReport report;
};

void runWatch(void* argument) {
  const std::unique_ptr<Watch> watch(static_cast<Watch*>(argument));
  watchActivity(watch->display.c_str(), watch->processId, watch->waylandSession, watch->report);
}

ActivityFacts look(X11Display& display, int processId, bool waylandSession) {
  ActivityFacts facts;
  const auto active = display.activeWindow();
  facts.windowManager = active.has_value();
  if (active && *active != 0) facts.activeProcess = display.processOfWindow(*active);
  facts.waylandSession = waylandSession;
  if (!waylandSession) return facts;
  for (const std::uint32_t window : display.clientWindows())
    if (display.processOfWindow(window) == processId) facts.ownsWindow = true;
  return facts;
}

const char* variable(const char* name) {
  const char* const value = std::getenv(name);
  return value != nullptr && value[0] != '\0' ? value : nullptr;
}

}  // namespace

bool isActive(const ActivityFacts& facts, int processId) noexcept {
  if (!facts.windowManager || facts.activeProcess == processId) return true;
  return facts.waylandSession && !facts.ownsWindow;
}

void watchActivity(const char* name, int processId, bool waylandSession, const ActivityReport& report) {
  std::optional<std::pair<bool, std::string_view>> told;
  const auto tell = [&](bool active, const char* source) {
    const std::pair<bool, std::string_view> now(active, source);
    if (told == now) return;
    told = now;
    report(active, source);
  };
  const std::unique_ptr<X11Display> display = X11Display::connect(name);
  if (display != nullptr && display->watchRoot()) {
    do {
      const ActivityFacts facts = look(*display, processId, waylandSession);
      if (display->lost()) break;
      tell(isActive(facts, processId), facts.windowManager ? kByWindowManager : kAlways);
    } while (display->waitForChange());
  }
  tell(true, kAlways);
}

void startActivityWatch(ActivityReport report) {
  const char* const display = variable("DISPLAY");
  if (display == nullptr) return report(true, kAlways);
  auto watch = std::make_unique<Watch>(
      Watch{display, ::getpid(), variable("WAYLAND_DISPLAY") != nullptr, std::move(report)});
  if (linux_backend::startThread("quib activity", linux_backend::kHandlerStackBytes, runWatch, watch.get()))
    static_cast<void>(watch.release());
  else
    watch->report(true, kAlways);
}

}  // namespace qbv::standin
