// A loaded ELF object written down as a header with load commands, in memory of our own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "vitalscope/platform/images.h"
#include "vitalscope/platform/linux/elf_object.h"

namespace qbv::linux_backend {

// Where a block's symbol and string table lie, counted from the block's start.
struct DescribedSymbols {
  std::uint32_t symbols = 0;
  std::uint32_t count = 0;
  std::uint32_t strings = 0;
  std::uint32_t stringsSize = 0;
};

// Where a block's record of pointer slots lies; offsets count from the block's start. A section covers every
// word from its first slot to its last; `first` is the first one's index in the indirect symbol table.
struct DescribedSlots {
  struct Section {
    std::uint32_t segment = 0;  // index among the object's writable segments; sections are in their order
    bool lazy = false;
    std::uint64_t address = 0;  // without the slide
    std::uint64_t words = 0;
    std::uint32_t first = 0;
  };
  std::span<const Section> sections;
  std::uint32_t indirect = 0;
  std::uint32_t indirectCount = 0;
};

struct Describe {
  const DescribedSymbols* symbols = nullptr;
  bool sorted = true;  // the symbols are in ascending order
  const DescribedSlots* slots = nullptr;
};

// "__TEXT" from the load address to the end of the executable part, "__DATA_CONST" and "__DATA" for the
// writable parts, "__LINKEDIT" for the block itself (its file offsets count from the block's start), the
// build id's first 16 bytes as UUID and, when given, a symbol table, sections of symbol pointers and their
// indirect symbol table.
std::size_t descriptionSize(const ElfObject& object, const Describe& what);

// Writes descriptionSize(...) bytes to the start of block, which is aligned to 8.
void writeDescription(const ElfObject& object, bool executable, std::span<std::byte> block,
                      const Describe& what);

}  // namespace qbv::linux_backend
