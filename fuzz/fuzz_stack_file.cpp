// The reader of stack files must come through any bytes.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "tools/stack_file/stack_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string error;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  auto contents = qbv::stack_file::parse(bytes, error);
  if (contents.has_value() != error.empty()) std::abort();
  if (!contents) return 0;
  if (contents->stacks.size() > contents->slots) std::abort();
  for (const auto& stack : contents->stacks)
    if (stack.count == 0 || stack.frames.empty() || stack.frames.size() > 64) std::abort();
  qbv::stack_file::sortByWeight(contents->stacks, qbv::stack_file::Weight::count);
  return 0;
}
