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

// "__TEXT" from the load address to the end of the executable part, "__DATA_CONST" and "__DATA" for the
// writable parts, "__LINKEDIT" for the block itself (its file offsets count from the block's start), the
// build id's first 16 bytes as UUID and, with symbols, a sorted symbol table.
std::size_t descriptionSize(const ElfObject& object, bool withSymbols);

// Writes descriptionSize(...) bytes to the start of block, which is aligned to 8.
void writeDescription(const ElfObject& object, bool executable, std::span<std::byte> block,
                      const DescribedSymbols* symbols);

}  // namespace qbv::linux_backend
