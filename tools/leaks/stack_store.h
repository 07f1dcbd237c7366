// What the monitor in a process has recorded of where its blocks were allocated.
#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "tools/leaks/snapshot.h"

namespace leaks {

// Reads the monitor's address table and stack file in a snapshot. Nothing in them is trusted: whatever does
// not fit is as if it were not there. Holds a reference to the memory.
class StackStore {
 public:
  // `buckets`: of the address table.
  explicit StackStore(const Memory& memory, std::uint64_t buckets = kBuckets);

  // Whether the process keeps such a record.
  bool isThere() const { return table_ != 0; }
  // The stack that the block was recorded for, by its id. Nothing for a block that was not, and for one that
  // cannot be as large as the recorded one: then the record is of an earlier block at the same address.
  std::optional<std::uint64_t> stackOf(Address block, Address size) const;
  // Return addresses, innermost first. Empty for a stack of too few bytes to be in the stack file.
  std::vector<Address> frames(std::uint64_t stackId) const;

  static constexpr std::uint64_t kBuckets = 500'000;

 private:
  void findTable();
  void findStacks();

  const Memory& memory_;
  std::uint64_t buckets_;
  Address table_ = 0;
  std::unordered_map<std::uint64_t, Address> slots_;  // by stack id
};

}  // namespace leaks
