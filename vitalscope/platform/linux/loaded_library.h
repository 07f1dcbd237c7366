// Libraries of the host that this library is not linked with, found where they are loaded.
#pragma once

#include <dlfcn.h>

#include <cstring>
#include <string_view>

namespace qbv::linux_backend {

// The loaded library whose file name begins so, with its constructors behind it, and never unloaded from then
// on; null when it is not there. The global scope would miss one that came as a dependency of a module which
// was loaded locally. Waits while another thread's dlopen runs constructors: not for the main thread, unless
// it is loading something itself. Changes errno.
void* loadedLibrary(std::string_view fileNamePrefix);

// False, and a null function, when the library has none of that name. Waits as above.
template <class Function>
bool findFunction(void* library, const char* name, Function& function) {
  void* const address = dlsym(library, name);
  static_assert(sizeof function == sizeof address);
  std::memcpy(&function, &address, sizeof address);
  return address != nullptr;
}

}  // namespace qbv::linux_backend
