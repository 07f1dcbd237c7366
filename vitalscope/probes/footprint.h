// How large the process is.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

// Physical footprint of the process in megabytes of 1024 × 1024 bytes, unrounded; 0.0 when the kernel cannot
// be asked. Any thread.
QBV_EXPORT double physicalFootprintMegabytes();

}  // namespace qbv
