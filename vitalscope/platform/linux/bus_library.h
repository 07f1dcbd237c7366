// The message bus's client library, opened at run time: nothing is linked with it.
#pragma once

#include <dlfcn.h>

#include <type_traits>

// Its types, opaque here.
struct sd_bus;
struct sd_bus_slot;
struct sd_bus_message;

namespace qbv::linux_backend {

using BusHandler = int (*)(sd_bus_message*, void* context, void* error);

// A set of the library's functions: null where there is no library that has all of them. Functions is default
// constructible and has `template <class Find> bool find(Find&& find)`, which calls find(function, name) for
// each and answers whether all of them did. The library stays open.
class BusLibrary {
 public:
  template <class Functions>
  static const Functions* open() {
    for (const char* const name : {"libsystemd.so.0", "libelogind.so.0"}) {
      void* const handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
      if (handle == nullptr) continue;
      auto* const found = new Functions;
      const bool complete = found->find([handle](auto& function, const char* symbol) {
        function = reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(handle, symbol));
        return function != nullptr;
      });
      if (complete) return found;
      delete found;
    }
    return nullptr;
  }
};

}  // namespace qbv::linux_backend
