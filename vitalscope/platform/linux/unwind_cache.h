// Remembers the rules at code addresses in a compact form, so that a frame seen before costs a few loads.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

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
  // For each tracked register how many words below the frame address it is saved; 0: unchanged. As long as a
  // word, to be moved like one.
  alignas(8) std::array<std::uint8_t, 8> saved{};
  static_assert(kTrackedRegisters.size() <= 8);

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
  bool find(std::uint64_t pc, std::uint32_t generation, CompactRow& row) const {
    const Place& place = places_[placeOf(pc)];
    const std::uint64_t stamp = place.stamp.load(std::memory_order_acquire);
    if ((stamp & 1U) != 0 || stamp >> 32U != generation) return false;
    if (place.pc.load(std::memory_order_acquire) != pc) return false;
    const std::uint64_t frame = place.frame.load(std::memory_order_acquire);
    const std::uint64_t saved = place.saved.load(std::memory_order_acquire);
    if (place.stamp.load(std::memory_order_relaxed) != stamp) return false;
    row = unpack(frame, saved);
    return true;
  }
  void store(std::uint64_t pc, std::uint32_t generation, const CompactRow& row);

 private:
  static constexpr unsigned kPlacesLog2 = 12;
  // The stamp's count is odd while a writer is at work. Loads of the data acquire, so that the second load of
  // the stamp cannot come before them; stores of the data release, so that the odd stamp is seen before them.
  struct alignas(32) Place {
    std::atomic<std::uint64_t> stamp{
        0};  // generation above, a count of writes below; odd while being written
    std::atomic<std::uint64_t> pc{0};
    std::atomic<std::uint64_t> frame{0};
    std::atomic<std::uint64_t> saved{0};
  };
  static_assert(sizeof(Place) == 32);

  // The frame half of a compact row as a word: offset below, then register, then the two flags.
  static std::uint64_t packFrame(const CompactRow& row) {
    return std::uint64_t{static_cast<std::uint32_t>(row.frameOffset)} |
           std::uint64_t{row.frameRegister} << 32U | std::uint64_t{row.outermost} << 40U |
           std::uint64_t{row.signalFrame} << 41U;
  }
  static CompactRow unpack(std::uint64_t frame, std::uint64_t saved) {
    CompactRow row;
    row.frameOffset = static_cast<std::int32_t>(static_cast<std::uint32_t>(frame));
    row.frameRegister = static_cast<std::uint8_t>(frame >> 32U);
    row.outermost = ((frame >> 40U) & 1U) != 0;
    row.signalFrame = ((frame >> 41U) & 1U) != 0;
    std::memcpy(row.saved.data(), &saved, row.saved.size());
    return row;
  }

  static std::size_t placeOf(std::uint64_t pc) {
    return static_cast<std::size_t>((pc * 0x9e3779b97f4a7c15U) >> (64 - kPlacesLog2));
  }

  std::array<Place, std::size_t{1} << kPlacesLog2> places_;
};

}  // namespace qbv::linux_backend
