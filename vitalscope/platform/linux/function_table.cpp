#include "vitalscope/platform/linux/function_table.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace qbv::linux_backend {

namespace {

constexpr std::uint64_t kAlignment = 16;  // of functions: a smaller gap is padding
constexpr std::size_t kLongestName = 65535;

// Ascending preference; 0 is no function.
std::uint32_t rankOf(const ElfW(Sym) & symbol) {
  const unsigned type = ELF64_ST_TYPE(symbol.st_info);
  if ((type != STT_FUNC && type != STT_GNU_IFUNC) || symbol.st_shndx == SHN_UNDEF ||
      symbol.st_shndx == SHN_ABS) {
    return 0;
  }
  switch (ELF64_ST_BIND(symbol.st_info)) {
    case STB_LOCAL:
      return 1;
    case STB_WEAK:
      return 2;
    default:
      return 3;
  }
}

// Full tables write a symbol's version behind its name; it is no part of the name. 0 for one that is no use.
std::uint32_t nameSize(const char* name) {
  const std::size_t size = strnlen(name, kLongestName + 1);
  if (size > kLongestName) return 0;
  const void* version = size > 1 ? std::memchr(name + 1, '@', size - 1) : nullptr;
  return static_cast<std::uint32_t>(
      version != nullptr ? static_cast<std::size_t>(static_cast<const char*>(version) - name) : size);
}

}  // namespace

void FunctionTable::addSymbols(const ByteSource& source, const SymbolTablePlace& place) {
  const std::size_t base = names_.size();
  PageVector<ElfW(Sym)> table;
  const bool fits = base < FunctionEntry::kRedacted && place.count < FunctionEntry::kRedacted &&
                    place.stringsSize < FunctionEntry::kRedacted - base;
  if (!fits || !source.append(place.symbols, place.count, table) ||
      !source.append(place.strings, place.stringsSize, names_) || !names_.push(0)) {
    return;
  }
  for (const ElfW(Sym) & symbol : table) {
    const std::uint32_t rank = rankOf(symbol);
    if (rank == 0 || !code_.contains(symbol.st_value) || symbol.st_name >= place.stringsSize) continue;
    const auto name = static_cast<std::uint32_t>(base + symbol.st_name);
    const std::uint32_t size = nameSize(names_.begin() + name);
    const std::uint64_t reach = std::min<std::uint64_t>(symbol.st_size, code_.end - symbol.st_value);
    if (size == 0) continue;
    const auto order = static_cast<std::uint32_t>(symbols_.size());
    if (!symbols_.push({symbol.st_value, reach, name, size, rank, order})) return;
  }
}

// One symbol per address: the preferred name with the largest size.
void FunctionTable::sortSymbols() {
  std::sort(symbols_.begin(), symbols_.end(), [](const Symbol& a, const Symbol& b) {
    if (a.address != b.address) return a.address < b.address;
    return a.rank != b.rank ? a.rank < b.rank : a.order < b.order;
  });
  std::size_t kept = 0;
  for (const Symbol& symbol : symbols_) {
    if (kept > 0 && symbols_[kept - 1].address == symbol.address) --kept;
    const std::uint64_t size =
        symbols_[kept].address == symbol.address ? std::max(symbol.size, symbols_[kept].size) : symbol.size;
    symbols_[kept] = symbol;
    symbols_[kept++].size = size;
  }
  static_cast<void>(symbols_.resize(kept));
}

void FunctionTable::redact(std::uint64_t address) {
  static_cast<void>(entries_.push({address, FunctionEntry::kRedacted, 0}));
}

// Redacts what lies between the last symbol and the next one.
void FunctionTable::fillGap(std::uint64_t to) {
  std::uint64_t from = gap_;
  bool named = sized_ && from < to;
  if (named && from < covered_) {  // back in the function around the last symbol
    redact(from);
    named = false;
  }
  for (; nextStart_ < starts_.size() && starts_[nextStart_] < to; ++nextStart_) {
    const std::uint64_t start = starts_[nextStart_];
    if (start < covered_ || start < from || (start == from && !sized_)) continue;
    if (named && start - from >= kAlignment) redact(from);
    if (entries_.size() == 0 || entries_[entries_.size() - 1].address < start) redact(start);
    named = false;
  }
  if (named && to - from >= kAlignment) redact(from);
}

void FunctionTable::place(const Symbol& symbol) {
  if (symbol.size == 0 && symbol.address < covered_) return;  // a label inside a function
  fillGap(symbol.address);
  static_cast<void>(entries_.push({symbol.address, symbol.name, symbol.nameSize}));
  sized_ = symbol.size != 0;
  gap_ = symbol.address + symbol.size;
  covered_ = std::max(covered_, gap_);
}

const PageVector<FunctionEntry>& FunctionTable::finish() {
  sortSymbols();
  std::uint64_t* const begin = starts_.begin();
  std::uint64_t* const end = std::remove_if(
      begin, starts_.end(), [this](std::uint64_t start) { return start == 0 || !code_.contains(start); });
  static_cast<void>(starts_.resize(static_cast<std::size_t>(end - begin)));
  if (!std::is_sorted(starts_.begin(), starts_.end())) std::sort(starts_.begin(), starts_.end());
  for (const Symbol& symbol : symbols_) place(symbol);
  fillGap(code_.end);
  return entries_;
}

}  // namespace qbv::linux_backend
