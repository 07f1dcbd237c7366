// A host that does nothing: what is measured is its start and end.
#include <string>

int main(int argc, char** argv) {
  return argc > 1 && std::string(argv[1]) == "fail" ? 1 : 0;
}
