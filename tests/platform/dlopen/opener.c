#include <dlfcn.h>
#include <stddef.h>

/* What the library beside this one answers; -1 when it is not found. */
__attribute__((visibility("default"))) int openSub(const char** error) {
  void* const library = dlopen("libdlopen_sub.so", RTLD_NOW | RTLD_LOCAL);
  if (library == NULL) {
    *error = dlerror();
    return -1;
  }
  int (*const answer)(void) = (int (*)(void))dlsym(library, "answerOfSub");
  return answer != NULL ? answer() : -2;
}
