// All that is known about the functions of one ELF object, as one table of names by address.
#pragma once

#include <cstdint>

#include "vitalscope/platform/linux/byte_source.h"
#include "vitalscope/platform/linux/elf_tables.h"

namespace qbv::linux_backend {

// From this address to the next entry's. Addresses are linked ones.
struct FunctionEntry {
  static constexpr std::uint32_t kRedacted = 0xffffffff;  // code whose name is not known
  std::uint64_t address = 0;
  std::uint32_t name = kRedacted;  // position in the names of the table
  std::uint32_t nameSize = 0;      // without a terminating zero, never 0 for a name
};

// One thread at a time; memory in pages of its own.
class FunctionTable {
 public:
  // Only functions that begin in this range (linked addresses) are taken.
  explicit FunctionTable(AddressRange code) : code_(code) {}

  // Adds the functions of a symbol table; an unreadable table adds nothing. Of several names for one address
  // a global one wins over a weak one and that over a local one, else the one added last.
  void addSymbols(const ByteSource& source, const SymbolTablePlace& place);

  // Where functions without a symbol may begin; add more to it.
  PageVector<std::uint64_t>& starts() { return starts_; }

  // The table in ascending order, one entry per address. A symbol holds for its size, one without a size to
  // the next entry; what follows and is known by no symbol is redacted, gaps of padding excepted.
  const PageVector<FunctionEntry>& finish();
  const char* names() const { return names_.begin(); }

 private:
  struct Symbol {
    std::uint64_t address, size;
    std::uint32_t name, nameSize, rank, order;
  };

  void sortSymbols();
  void place(const Symbol& symbol);
  void fillGap(std::uint64_t to);
  void redact(std::uint64_t address);

  AddressRange code_;
  PageVector<Symbol> symbols_;
  PageVector<char> names_;
  PageVector<std::uint64_t> starts_;
  PageVector<FunctionEntry> entries_;
  std::uint64_t gap_ = 0;      // end of the last symbol; with sized_ false its address
  std::uint64_t covered_ = 0;  // end of the symbol that reaches furthest
  bool sized_ = false;         // the last symbol has a size
  std::size_t nextStart_ = 0;
};

}  // namespace qbv::linux_backend
