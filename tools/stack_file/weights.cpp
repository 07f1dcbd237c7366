#include <algorithm>
#include <tuple>

#include "tools/stack_file/stack_file.h"

namespace qbv::stack_file {
namespace {

std::string foldedName(const std::string& name) {
  std::string result = name.empty() ? "?" : name;
  for (char& letter : result) {
    if (letter == ';') letter = ':';
    if (static_cast<unsigned char>(letter) <= ' ' || letter == 127) letter = '_';
  }
  return result;
}

}  // namespace

void sortByWeight(std::vector<Stack>& stacks, Weight weight) {
  const auto key = [weight](const Stack& stack) {
    return weight == Weight::bytes ? std::tuple(~stack.bytes, ~stack.count, stack.id)
                                   : std::tuple(~stack.count, ~stack.bytes, stack.id);
  };
  std::sort(stacks.begin(), stacks.end(),
            [&](const Stack& left, const Stack& right) { return key(left) < key(right); });
}

Totals totalsOf(const std::vector<Stack>& stacks) {
  Totals totals;
  for (const Stack& stack : stacks) {
    totals.bytes += stack.bytes;
    totals.count += stack.count;
  }
  return totals;
}

std::string foldedLine(const std::vector<std::string>& innermostFirst, std::uint64_t weight) {
  std::string line;
  for (auto name = innermostFirst.rbegin(); name != innermostFirst.rend(); ++name)
    line += (line.empty() ? "" : ";") + foldedName(*name);
  return line + ' ' + std::to_string(weight);
}

}  // namespace qbv::stack_file
