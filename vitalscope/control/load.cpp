#include "vitalscope/control/load.h"

#include "vitalscope/control/QBVitalscope.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"

namespace qbv {

void load() {
  QBVitalscope::load();
  QBVitalscopeBacktrace::load();
}

}  // namespace qbv
