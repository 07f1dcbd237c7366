// Return addresses that a function keeps elsewhere than on the machine stack, told to those who capture
// stacks.
#pragma once

#include <cstdint>

#include "vitalscope/platform/export.h"

namespace qbv {

// What a thread's calls through such a function return by: one of these for each call in flight, the last
// part of an entry of 64 bytes. Captures read it while the thread goes on; so when an entry is used anew, its
// number has to be the first thing that is written.
struct MovedReturn {
  void* returnAddress;
  void* savedRegister;        // the caller's value of the register that holds the entry's address meanwhile
  std::uintptr_t position;    // lies in the 16 bytes above the stack pointer that the call returns with
  std::uint64_t entryNumber;  // of all entries the thread has ever made
};
inline constexpr std::uint64_t kMovedReturnEntryBytes = 64;

// Where a thread's entries are: an array that never moves.
struct MovedReturns {
  std::uint64_t returnPoint;    // the address that stands on the machine stack in their place
  std::uint64_t entryRegister;  // number of that register in call-frame information
  std::uint64_t entries;        // address of the array
  std::uint64_t mostEntries;    // that it can ever have
  std::uint64_t innermost;  // address of a word: the innermost entry's address, one below `entries` for none
  std::uint64_t entriesMade;  // address of a 64-bit number: the last entry's number
};

// The calling thread has such an array from now on, until it calls this with null, which it has to do before
// the array goes. The structure is copied. Takes no lock; memory once per thread that is alive at a time.
// False without memory: then captures of the thread end at such a call.
QBV_EXPORT bool setMovedReturns(const MovedReturns* returns) noexcept;

}  // namespace qbv
