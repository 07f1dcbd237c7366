// The entries of an image's frame table, and how the one for a code address is found.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vitalscope/platform/linux/unwind_bytes.h"

namespace qbv::linux_backend {

// What the unwinder needs of a loaded image. Addresses are of the own process.
struct UnwindImage {
  static constexpr std::size_t kMaxSegments = 8;

  std::uint64_t frameHeader = 0;                // the search header of its frame table; 0 when it has none
  std::array<Extent, kMaxSegments> segments{};  // its readable segments as mapped
  std::size_t segmentCount = 0;

  void addSegment(Extent segment) {
    if (segmentCount < kMaxSegments) segments[segmentCount++] = segment;
  }
  // From address to the end of the segment that holds it; empty when none does.
  Extent readableFrom(std::uint64_t address) const;
};

// What the frame entries of one compilation unit share.
struct CommonEntry {
  std::uint64_t codeAlignment = 0;
  std::int64_t dataAlignment = 0;
  std::uint64_t returnColumn = 0;
  std::uint8_t pointerEncoding = 0;
  bool augmented = false;    // its frame entries carry a block of augmentation data
  bool signalFrame = false;  // its code is what a signal handler returns into
  Extent program;
};

// The frame entry of one function.
struct FrameEntry {
  CommonEntry common;
  Extent code;
  Extent program;
};

// Reads the frame entry at an address and the common entry it names. False when the address does not hold one
// or anything is damaged. Any thread; no lock, no heap.
bool readFrameEntry(const UnwindImage& image, std::uint64_t address, FrameEntry& entry);

// The frame entry whose code holds pc. The search header's sorted table is used if there is one of the usual
// form, else the entries are gone through one by one, at most 200,000 of them.
bool findFrameEntry(const UnwindImage& image, std::uint64_t pc, FrameEntry& entry);

}  // namespace qbv::linux_backend
