// A module that calls the target library in the way its build chooses.
typedef int (*function)(int);

int rebind_target(int value);
int rebind_chosen(int value);

#if defined(REBIND_OWN_TARGET)
// Bound inside of the module, without a slot.
__attribute__((visibility("default"))) int rebind_target(int value) {
  return value + 100;
}
#endif

static int doubled(int value) {
  return value * 2;
}
#if defined(REBIND_RESOLVERS)
static function choose(void) {
  return doubled;
}
static int hidden_choice(int value) __attribute__((ifunc("choose")));
#else
static int hidden_choice(int value) {
  return doubled(value);
}
#endif

__attribute__((visibility("default"))) int call_target(int value) {
  return rebind_target(value);
}
__attribute__((visibility("default"))) int call_chosen(int value) {
  return rebind_chosen(value);
}
__attribute__((visibility("default"))) function address_of_target(void) {
  return rebind_target;
}
__attribute__((visibility("default"))) int call_hidden_choice(int value) {
  return hidden_choice(value);
}
