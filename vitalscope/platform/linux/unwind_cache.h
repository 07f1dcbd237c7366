// Remembers the rules at code addresses in a compact form, so that a frame seen before costs a few loads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "vitalscope/platform/linux/unwind_machine.h"

namespace qbv::linux_backend {

struct Row;

// The rules of nearly every compiled function: the frame address is a register plus an offset, and the
// tracked registers are unchanged or saved a few words below it.
struct CompactRow {
  std::int32_t frameOffset = 0;
  std::uint8_t frameRegister = 0;
  bool outermost = false;    // the return address is undefined
  bool signalFrame = false;  // returns to where a signal struck
  // For each tracked register how many words below the frame address it is saved; 0: unchanged.
  std::array<std::uint8_t, kTrackedRegisters.size()> saved{};

  friend bool operator==(const CompactRow&, const CompactRow&) = default;
};

// The compact form of a row; false when it has none. Restoring from a compact row must give the same as from
// the row itself, so a row that saves any other register has none, except on machines where tracked registers
// are chosen from more.
bool compact(const Row& row, bool signalFrame, CompactRow& result);

// 4,096 places of 32 bytes, each the compact row of one address at one generation; a later address with the
// same place takes it over. Any number of threads at once: a place being written reads as empty, and a second
// writer leaves it alone. Async-signal-safe; no lock, no heap.
class RowCache {
 public:
  // generation changes whenever code may have been taken away: places written under another one are empty.
  bool find(std::uint64_t pc, std::uint32_t generation, CompactRow& row) const;
  void store(std::uint64_t pc, std::uint32_t generation, const CompactRow& row);

 private:
  static constexpr unsigned kPlacesLog2 = 12;
  struct alignas(32) Place {
    std::atomic<std::uint64_t> stamp{
        0};  // generation above, a count of writes below; odd while being written
    std::atomic<std::uint64_t> pc{0};
    std::atomic<std::uint64_t> frame{0};
    std::atomic<std::uint64_t> saved{0};
  };
  static_assert(sizeof(Place) == 32);

  static std::size_t placeOf(std::uint64_t pc) {
    return static_cast<std::size_t>((pc * 0x9e3779b97f4a7c15U) >> (64 - kPlacesLog2));
  }

  std::array<Place, std::size_t{1} << kPlacesLog2> places_;
};

}  // namespace qbv::linux_backend
