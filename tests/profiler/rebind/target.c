// The library whose functions are called through slots.
static int plain(int value) {
  return value + 1;
}
__attribute__((visibility("default"))) int rebind_target(int value) {
  return plain(value);
}

#if defined(REBIND_RESOLVERS)
static int (*choose(void))(int) {
  return plain;
}
__attribute__((visibility("default"), ifunc("choose"))) int rebind_chosen(int value);
#else
__attribute__((visibility("default"))) int rebind_chosen(int value) {
  return plain(value);
}
#endif
