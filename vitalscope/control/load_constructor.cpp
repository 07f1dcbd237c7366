// The one piece of code that runs when the library is loaded.
#include "vitalscope/control/load.h"

namespace {

[[gnu::constructor]] void loadFramework() {
  qbv::load();
}

}  // namespace
