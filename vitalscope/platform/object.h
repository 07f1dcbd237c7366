// Base of every object that can be handed over as an observer.
#pragma once

#include "vitalscope/platform/export.h"

namespace qbv {

// "Responds to a callback" is a dynamic_cast from Object to the callback's one-method protocol class.
class QBV_EXPORT Object {
 public:
  virtual ~Object() = default;
};

}  // namespace qbv
