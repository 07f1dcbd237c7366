#include "tools/sample/call_tree.h"

#include <algorithm>

namespace sample {

namespace {

CallNode& childNamed(CallNode& parent, const FunctionName& name) {
  for (const auto& child : parent.children)
    if (child->name == name) return *child;
  parent.children.push_back(std::make_unique<CallNode>());
  parent.children.back()->name = name;
  return *parent.children.back();
}

// A function without a name is told apart by its address, one with a name is not: all its addresses are one
// node.
FunctionName keyOf(FunctionName name) {
  if (!name.function.empty()) name.imageOffset = 0;
  return name;
}

void sortBelow(CallNode& node) {
  std::stable_sort(node.children.begin(), node.children.end(),
                   [](const auto& a, const auto& b) { return a->count > b->count; });
  for (const auto& child : node.children) sortBelow(*child);
}

using Tops = std::map<FunctionName, std::map<FunctionName, std::size_t>>;

void collectTops(const CallNode& node, const FunctionName& caller, Tops& tops) {
  if (node.onTop > 0) tops[node.name][caller] += node.onTop;
  for (const auto& child : node.children) collectTops(*child, node.name, tops);
}

}  // namespace

void CallTree::add(const Chain& chain, std::size_t times, const Names& names) {
  root_.count += times;
  CallNode* node = &root_;
  for (const std::uint64_t address : chain) {
    const auto name = names.find(address);
    node = &childNamed(*node, name != names.end() ? keyOf(name->second) : FunctionName{"", "", address});
    node->count += times;
  }
  if (node != &root_) node->onTop += times;
}

void CallTree::sort() {
  sortBelow(root_);
}

std::vector<TopEntry> topOfStack(const CallTree& tree) {
  Tops tops;
  collectTops(tree.root(), {}, tops);
  std::vector<TopEntry> entries;
  for (const auto& [name, callers] : tops) {
    TopEntry entry{name, {}, 0};
    std::size_t most = 0;
    for (const auto& [caller, count] : callers) {
      entry.count += count;
      if (count > most) {
        most = count;
        entry.caller = caller;
      }
    }
    entries.push_back(std::move(entry));
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const TopEntry& a, const TopEntry& b) { return a.count > b.count; });
  return entries;
}

}  // namespace sample
