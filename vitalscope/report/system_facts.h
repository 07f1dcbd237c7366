// Where the system facts come from.
#pragma once

#include <string>

#include "vitalscope/report/QBVSystemFacts.h"

namespace qbv {

// Three parts unless the patch is 0, then two.
std::string versionText(int major, int minor, int patch);

// The facts of this moment. Any thread.
SystemFacts collectSystemFacts();

}  // namespace qbv
