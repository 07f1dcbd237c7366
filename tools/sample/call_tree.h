// Counted call chains: what was seen on a thread's stack, merged from the outermost function inwards.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace sample {

// Code address, outermost first, as one observation of one stack.
using Chain = std::vector<std::uint64_t>;

// What a code address is called. Two addresses in one function have equal names.
struct FunctionName {
  std::string function;  // "" when no symbol covers the address
  std::string image;     // file name without its folder, "" when unknown
  std::uint64_t imageOffset = 0;
  friend auto operator<=>(const FunctionName&, const FunctionName&) = default;
};

struct CallNode {
  FunctionName name;
  std::size_t count = 0;  // observations that went through this node
  std::size_t onTop = 0;  // observations that ended in it
  std::vector<std::unique_ptr<CallNode>> children;
};

// Merges observations into one tree; a node's children come heaviest first, equals in the order first seen.
class CallTree {
 public:
  // Name of every address that add() will meet. Addresses without an entry are counted under an empty name.
  using Names = std::map<std::uint64_t, FunctionName>;

  void add(const Chain& chain, std::size_t times, const Names& names);
  void sort();
  const CallNode& root() const noexcept { return root_; }  // its count is the number of observations

 private:
  CallNode root_;
};

// Functions by the number of observations that ended in them, most first, each with its most frequent caller.
struct TopEntry {
  FunctionName name;
  FunctionName caller;
  std::size_t count = 0;
};
std::vector<TopEntry> topOfStack(const CallTree& tree);

}  // namespace sample
