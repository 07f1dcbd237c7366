// Path names of loaded objects.
#pragma once

#include <climits>

namespace qbv::linux_backend {

// The full path of the running program, also of one that was deleted since, and of one that was started as
// an argument of the dynamic loader; empty when it is not known.
void executablePath(char (&path)[PATH_MAX]);

// What to open to read the file of the running program, or null when only its path is known.
const char* executableFile();

}  // namespace qbv::linux_backend
