int answerOfSub(void) {
  return 42;
}
