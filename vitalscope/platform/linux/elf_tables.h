// Where an ELF object keeps its symbols and function starts. Nothing read is trusted: what makes no sense is
// answered with "none", and every loop is bounded by the size of the source.
#pragma once

#include <cstdint>
#include <optional>

#include "vitalscope/platform/linux/byte_source.h"
#include "vitalscope/platform/linux/elf_object.h"

namespace qbv::linux_backend {

// What the dynamic section says; 0 for what it lacks. Addresses in memory, sizes in bytes.
struct DynamicFacts {
  std::uint64_t symbols = 0;
  std::uint64_t strings = 0;
  std::uint64_t stringsSize = 0;
  std::uint64_t hash = 0;
  std::uint64_t gnuHash = 0;
  std::uint64_t versions = 0;     // one 16-bit entry per symbol
  std::uint64_t relocations = 0;  // applied when the object is loaded
  std::uint64_t relocationsSize = 0;
  std::uint64_t relativeCount = 0;  // so many of them come first and name no symbol
  std::uint64_t jumps = 0;          // relocations of the slots that calls go through
  std::uint64_t jumpsSize = 0;
  std::uint64_t jumpTable = 0;  // those slots, behind three of the loader's own
};
DynamicFacts dynamicFacts(const ByteSource& memory, const ElfObject& object);

// Positions in the source that was asked.
struct SymbolTablePlace {
  std::uint64_t symbols = 0;
  std::uint64_t count = 0;
  std::uint64_t strings = 0;
  std::uint64_t stringsSize = 0;
};

// The dynamic symbol table of a loaded object, by its dynamic section and hash table.
std::optional<SymbolTablePlace> dynamicSymbols(const ByteSource& memory, const ElfObject& object);

// The full symbol table of a file, by its section headers.
std::optional<SymbolTablePlace> fileSymbols(const ByteSource& file);

// Whether the file is the one that is loaded: the same build id or, without one, the same layout.
bool isFileOf(const ByteSource& file, const ElfObject& object);

// Appends the linked address of every function that has call-frame information, in ascending order unless the
// object is damaged. What cannot be read is left out.
void functionStarts(const ByteSource& memory, const ElfObject& object, PageVector<std::uint64_t>& starts);

}  // namespace qbv::linux_backend
