// A library bound lazily, so that a first call goes through its stub and the loader's resolver.
#include <stdlib.h>
#include <string.h>

static int compare(const void* left, const void* right) {
  return memcmp(left, right, 1);
}

int unwind_lazy_sort(char* bytes, unsigned long size, void (*inside)(void)) {
  if (inside != 0) inside();
  qsort(bytes, size, 1, compare);
  return strtol(bytes, 0, 10) == 0;
}
