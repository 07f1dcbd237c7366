// A host that calls nothing of the monitor: says whether it is there all the same, with its allocator in
// front of the C library's.
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main() {
  void* const monitor = dlopen("libquibvitalscope.so.0", RTLD_NOW | RTLD_NOLOAD);
  Dl_info allocator{};
  const bool known = dladdr(dlsym(RTLD_DEFAULT, "malloc"), &allocator) != 0;
  const bool first = known && std::strstr(allocator.dli_fname, "libquibplatform") != nullptr;
  std::puts(monitor == nullptr ? "not loaded" : first ? "watched" : "the allocator is another one");
  return 0;
}
