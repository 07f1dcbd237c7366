// Reads an image's header, load commands and symbol table without believing them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

#include "vitalscope/platform/images.h"

namespace qbv {

struct ImageSymbol {
  std::uint64_t value = 0;     // without the slide
  const char* name = nullptr;  // without one leading "_"; null when the entry says that it has none
};

// Looks at one header of one place of the image list, for the time of one look-up. Touches only bytes that
// the platform calls readable; bytes that make no sense (commands cut short or without size, tables outside)
// end the search. Any thread, no lock, no allocation.
class ImageReader {
 public:
  // A null header is an image without commands.
  ImageReader(Images& images, std::uint32_t index, const void* header);

  // Whether a segment command covers the address (both without the slide).
  bool hasSegmentAt(std::uint64_t address) const;

  struct Tables {
    std::uint64_t linkeditOffset = 0;  // vmaddr − fileoff of the first "__LINKEDIT" segment; 0 without one
    bool sorted = false;               // the symbols are in ascending order
  };
  Tables tables() const;

  // The entry with the greatest value that is not above the address, of the first symbol table that has one;
  // entries of value 0 do not count, the later one of two with the same value wins. base is the linkedit
  // offset plus the slide. Sorted symbols are searched by halves: the same result, sooner.
  std::optional<ImageSymbol> nearestSymbol(std::uint64_t base, std::uint64_t address, bool sorted) const;

 private:
  struct Command {
    std::uint64_t at = 0;
    load_command head{};
  };
  struct Segment {
    char name[16];
    std::uint64_t address, size, fileOffset;
  };

  template <typename Visit>
  void walk(Visit visit) const;
  bool can(std::uint64_t address, std::uint64_t size) const;
  template <typename T>
  static T at(std::uint64_t address) {
    T value;
    std::memcpy(&value, reinterpret_cast<const void*>(address), sizeof value);
    return value;
  }
  static std::optional<Segment> segment(const Command& command);
  static std::optional<std::uint64_t> nearestEntry(std::uint64_t entries, std::uint64_t count,
                                                   std::uint64_t address, bool sorted);
  const char* name(std::uint64_t strings, std::uint64_t size, std::uint64_t offset) const;

  Images& images_;
  std::uint32_t index_;
  std::uint64_t first_ = 0;    // the first command; 0 when there is nothing to read
  std::uint64_t trusted_ = 0;  // end of the bytes behind first_ that were found readable as a whole
  std::uint32_t count_ = 0;
};

}  // namespace qbv
