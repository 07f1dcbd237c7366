// The system log.
#pragma once

#include <string>

#include "vitalscope/platform/export.h"

namespace qbv {

class QBV_EXPORT Log {
 public:
  virtual ~Log() = default;
  // One diagnostic message to the system log and to stderr. Any thread, not in signal handlers. Never fails
  // visibly.
  virtual void NSLog(const std::string& message) = 0;
};

}  // namespace qbv
