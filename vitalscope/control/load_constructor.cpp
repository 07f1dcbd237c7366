// The one piece of code that runs when the library is loaded.
#include "vitalscope/control/load.h"
#include "vitalscope/platform/monitored_process.h"

namespace {

[[gnu::constructor]] void loadFramework() {
  if (qbv::monitoredProcess()) qbv::load();
}

}  // namespace
