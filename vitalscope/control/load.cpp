#include "vitalscope/control/load.h"

namespace qbv {

void load() {}

}  // namespace qbv
