// What runs when the stand-in host is loaded.
#include <unistd.h>

#include <cstdlib>

#include "host/standin/standin.h"
#include "vitalscope/control/QBVTool.h"
#include "vitalscope/platform/monitored_process.h"
#include "vitalscope/platform/platform.h"

namespace {

pid_t loadedIn = 0;

// A forked child that exits was not watched on purpose.
void atExit() {
  if (::getpid() == loadedIn) qbv::standin::StandIn::shared().reportMissingMainLoop();
}

[[gnu::constructor]] void loadStandIn() {
  if (!qbv::monitoredProcess()) return;
  loadedIn = ::getpid();
  qbv::standin::StandIn::shared().load(
      qbv::standin::settingsFrom([](const char* name) -> const char* { return std::getenv(name); },
                                 qbv::platform().hostInfo.processName(), qbv::mailDomain()));
  std::atexit(atExit);
}

}  // namespace
