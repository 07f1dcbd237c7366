// Reads where an image keeps the names of its symbol pointer slots, without believing it.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "vitalscope/platform/images.h"

namespace qbv {

// The names of slots, looked up in an image's tables.
class SlotNames {
 public:
  virtual ~SlotNames() = default;
  // The symbol name, with its first character, that an entry of the indirect symbol table leads to; null when
  // the entry marks a slot without a symbol, the name has fewer than two characters, or any of it cannot be
  // read.
  virtual const char* at(std::uint64_t entry) const = 0;
};

// Tables that are taken as they are: they have to reach far enough.
class BelievedSlotNames final : public SlotNames {
 public:
  BelievedSlotNames(const nlist_64* symbols, const char* strings, const std::uint32_t* indirect)
      : symbols_(symbols), strings_(strings), indirect_(indirect) {}
  const char* at(std::uint64_t entry) const override;

 private:
  const nlist_64* symbols_;
  const char* strings_;
  const std::uint32_t* indirect_;
};

// One image's sections of symbol pointers ("__DATA" and "__DATA_CONST") and the names of their slots. Touches
// only bytes that the platform calls readable for this place; commands that make no sense end the reading,
// names that lie outside are no names. Lives no longer than the image is held.
class SlotTables final : public SlotNames {
 public:
  SlotTables(Images& images, std::uint32_t index, const void* header, std::intptr_t slide);

  // Lazy and non-lazy symbol pointer sections in the order of the commands; none unless the image has a
  // symbol table, a dynamic symbol table with indirect symbols and a "__LINKEDIT" segment. Of each kind of
  // command the last one counts.
  const std::vector<section_64>& sections() const { return sections_; }
  const char* at(std::uint64_t entry) const override;

 private:
  void walk(std::uint64_t first, std::uint32_t count);
  void readSegment(std::uint64_t at, const load_command& command);
  bool can(std::uint64_t address, std::uint64_t size) const;
  bool nameEnds(std::uint64_t name) const;

  Images& images_;
  std::uint32_t index_;
  std::vector<section_64> sections_;
  std::optional<segment_command_64> linkedit_;
  std::optional<symtab_command> symtab_;
  std::optional<dysymtab_command> dysymtab_;
  std::uint64_t symbols_ = 0;
  std::uint64_t strings_ = 0;
  std::uint64_t indirect_ = 0;
  std::uint64_t safeIndirect_ = 0;  // so many entries of the tables are known to be readable as a whole
  std::uint64_t safeSymbols_ = 0;
  std::uint64_t safeStrings_ = 0;  // bytes, the last of which ends a string
};

}  // namespace qbv
