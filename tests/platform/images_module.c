// A library to load and to close: one exported function, one that only the full symbol table knows.
__attribute__((noinline)) static int qbv_module_secret(int value) {
  __asm__ volatile("" ::: "memory");
  return value * 3 + 1;
}

__attribute__((visibility("default"))) int qbv_module_entry(int value) {
  const int result = qbv_module_secret(value);
  __asm__ volatile("" ::: "memory");
  return result + QBV_MODULE_NUMBER;
}

__attribute__((visibility("default"))) void* qbv_module_secret_address(void) {
  return (void*)qbv_module_secret;
}
