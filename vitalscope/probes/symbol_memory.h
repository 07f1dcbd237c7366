// Symbols that a capture has looked up before: the threads of a program share most of their frames.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/probes/QBVSymbolication.h"
#include "vitalscope/probes/stack_walk.h"

namespace qbv {

// For one capture: what it remembers is as old as itself. 10 KB, one thread at a time, nothing from the heap.
class SymbolMemory {
 public:
  // As qbv_symbolicate of the whole list with nothing skipped, but asks only for what it does not remember.
  void symbolicate(const AddressList& list, qbv_symbol_record* records);

 private:
  static constexpr unsigned kPlacesLog2 = 8;
  struct Place {
    std::uint64_t key = 0;
    qbv_symbol_record record{};
  };

  // An address is looked up in two ways: as it is, and as one to return to.
  static std::uint64_t keyOf(const AddressList& list, std::size_t index) {
    return list.addresses[index] << 1U | (index == 0 ? 1U : 0U);
  }
  Place& placeOf(std::uint64_t key) {
    return places_[static_cast<std::size_t>((key * 0x9e3779b97f4a7c15U) >> (64 - kPlacesLog2))];
  }

  std::array<Place, std::size_t{1} << kPlacesLog2> places_;
};

}  // namespace qbv
