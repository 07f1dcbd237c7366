// Where this library lies on disk.
#pragma once

#include <string>

namespace qbv::linux_backend {

// Folder of the library (or the program) that holds this code, with a slash at its end; "" when it is not
// known. Read from the kernel: the loader knows only the path it was given, which may be relative to a folder
// that has been left, and asking it can wait for a library whose constructor is slow. Any thread.
std::string ownFolder();

}  // namespace qbv::linux_backend
